#include "Tovik/ThreadLocal.h"

namespace Tovik {

std::unordered_map<std::string, std::any>& currentThreadDictionary() {
    thread_local std::unordered_map<std::string, std::any> dictionary;
    return dictionary;
}

}  // namespace Tovik
