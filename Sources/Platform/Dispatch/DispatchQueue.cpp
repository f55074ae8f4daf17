#include "Dispatch/DispatchQueue.h"

#include "Dispatch/DispatchGroup.h"
#include "Dispatch/EventLoop.h"
#include "Dispatch/Queue.h"

namespace Dispatch {

namespace {

const char* globalLabel(DispatchQoS qos) {
    switch (qos) {
    case DispatchQoS::background: return "com.apple.root.background-qos";
    case DispatchQoS::utility: return "com.apple.root.utility-qos";
    case DispatchQoS::userInitiated: return "com.apple.root.user-initiated-qos";
    case DispatchQoS::userInteractive: return "com.apple.root.user-interactive-qos";
    case DispatchQoS::unspecified:
    case DispatchQoS::default_: break;
    }
    return "com.apple.root.default-qos";
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, DispatchQoS qos, Attributes attributes, AutoreleaseFrequency)
    : impl_(std::make_shared<detail::Queue>(std::move(label), qos,
                                            attributes == Attributes::serial ? detail::Queue::Kind::serial
                                                                             : detail::Queue::Kind::concurrent)) {}

DispatchQueue DispatchQueue::main() {
    // Never destroyed: work may reach it while the process exits.
    static auto* queue = new DispatchQueue(
        std::make_shared<detail::Queue>("com.apple.main-thread", DispatchQoS::userInteractive, detail::Queue::Kind::main));
    return *queue;
}

DispatchQueue DispatchQueue::global(DispatchQoS qos) {
    if (qos == DispatchQoS::unspecified) qos = DispatchQoS::default_;
    static auto* queues = [] {
        auto* all = new std::shared_ptr<detail::Queue>[6];
        for (DispatchQoS each : {DispatchQoS::background, DispatchQoS::utility, DispatchQoS::default_,
                                 DispatchQoS::userInitiated, DispatchQoS::userInteractive}) {
            all[static_cast<int>(each)] =
                std::make_shared<detail::Queue>(globalLabel(each), each, detail::Queue::Kind::concurrent);
        }
        return all;
    }();
    return DispatchQueue(queues[static_cast<int>(qos)]);
}

const std::string& DispatchQueue::label() const { return impl_->label(); }
DispatchQoS DispatchQueue::qos() const { return impl_->qos(); }
bool DispatchQueue::isSerial() const { return impl_->isSerial(); }

void DispatchQueue::async(std::function<void()> work) const { impl_->async(std::move(work)); }

void DispatchQueue::async(const DispatchGroup& group, std::function<void()> work) const {
    group.enter();
    impl_->async([group, work = std::move(work)] {
        work();
        group.leave();
    });
}

void DispatchQueue::asyncAfter(DispatchTime deadline, std::function<void()> work) const {
    if (deadline.isDistantFuture()) return;  // never due
    detail::EventLoop::shared().addTimer(deadline.uptime, [queue = impl_, work = std::move(work)]() mutable {
        queue->async(std::move(work));
    });
}

void DispatchQueue::asyncAfter(double seconds, std::function<void()> work) const {
    asyncAfter(DispatchTime::now() + (seconds > 0 ? seconds : 0.0), std::move(work));
}

void DispatchQueue::syncImpl(void (*invoke)(void*), void* context) const { impl_->sync(invoke, context); }

bool DispatchQueue::isCurrent() const { return impl_->isCurrent(); }

std::string DispatchQueue::currentLabel() {
    detail::Queue* current = detail::Queue::current();
    return current ? current->label() : std::string();
}

void dispatchMain() { DispatchQueue::main().impl()->serveMainForever(); }

}  // namespace Dispatch
