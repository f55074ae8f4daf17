// The text of an exception, for log lines.
#pragma once

#include <exception>
#include <string>

namespace Tovik {

/// what() of a std::exception, "unknown error" for anything else thrown, and
/// "no error" for an empty pointer. Pass std::current_exception() in a catch
/// block for the exception being handled.
inline std::string errorText(const std::exception_ptr& error) {
    if (!error) return "no error";
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& exception) {
        return exception.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace Tovik
