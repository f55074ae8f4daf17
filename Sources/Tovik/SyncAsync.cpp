#include "Tovik/SyncAsync.h"

namespace Tovik {

SyncAsync::SyncAsync(std::string label) : queue_(std::move(label)) {}

void SyncAsync::async(AsyncClosure<void> block) {
    queue_.async([block = std::move(block)]() mutable { SerialJob<void>(std::move(block)).run(); });
}

}  // namespace Tovik
