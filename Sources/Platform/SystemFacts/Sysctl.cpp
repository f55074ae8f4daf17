#include "SystemFacts/Sysctl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace SystemFacts {

namespace {

constexpr std::int32_t cpuArchAbi64 = 0x01000000;
constexpr std::int32_t cpuTypeAny = -1;
constexpr std::int32_t cpuTypeX86 = 7;
constexpr std::int32_t cpuTypeArm = 12;
constexpr std::int32_t cpuTypePowerPC = 18;

int answer(const void* value, std::size_t size, void* oldp, std::size_t* oldlenp) {
    if (oldlenp == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (oldp == nullptr) {
        *oldlenp = size;
        return 0;
    }
    const std::size_t copied = std::min(size, *oldlenp);
    std::memcpy(oldp, value, copied);
    *oldlenp = copied;
    if (copied < size) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

}  // namespace

Sysctl::Sysctl(FactSources sources) : sources_(std::move(sources)) {}

const Sysctl& Sysctl::system() {
    static const Sysctl sysctl;
    return sysctl;
}

std::int32_t Sysctl::cpuTypeForMachine(std::string_view machine) {
    if (machine == "x86_64" || machine == "amd64") return cpuTypeX86 | cpuArchAbi64;
    if (machine == "aarch64" || machine == "arm64") return cpuTypeArm | cpuArchAbi64;
    if (machine.size() == 4 && machine.starts_with('i') && machine.ends_with("86")) return cpuTypeX86;
    if (machine.starts_with("arm")) return cpuTypeArm;
    if (machine.starts_with("ppc64")) return cpuTypePowerPC | cpuArchAbi64;
    if (machine.starts_with("ppc")) return cpuTypePowerPC;
    return cpuTypeAny;
}

std::optional<std::string> Sysctl::hardwareModel() const {
    for (const auto& path : {sources_.sys / "class/dmi/id/product_name", sources_.proc / "device-tree/model",
                             sources_.sys / "firmware/devicetree/base/model"}) {
        if (auto text = FactSources::readFile(path, 4096)) {
            std::string model = FactSources::trimmed(std::move(*text));
            if (!model.empty()) return model;
        }
    }
    return std::nullopt;
}

int Sysctl::sysctlbyname(const char* name, void* oldp, std::size_t* oldlenp, const void* newp,
                         std::size_t newlen) const {
    if (newp != nullptr || newlen != 0) {
        errno = EPERM;
        return -1;
    }
    const std::string_view key = name == nullptr ? std::string_view() : std::string_view(name);
    if (key == "hw.cputype") {
        const std::string machine = sources_.unameMachine();
        if (machine.empty()) {
            errno = ENOENT;
            return -1;
        }
        const std::int32_t type = cpuTypeForMachine(machine);
        return answer(&type, sizeof type, oldp, oldlenp);
    }
    if (key == "hw.model") {
        const auto model = hardwareModel();
        if (!model) {
            errno = ENOENT;
            return -1;
        }
        return answer(model->c_str(), model->size() + 1, oldp, oldlenp);
    }
    errno = ENOENT;
    return -1;
}

}  // namespace SystemFacts
