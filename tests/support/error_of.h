#pragma once
// The message of the runtime error an action throws, or "(no error)", so that
// a refusal is checked with one comparison.

#include <stdexcept>
#include <string>

namespace TestSupport {

template <typename Action>
std::string ErrorOf(Action&& action) {
    try {
        action();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

// Whether text holds part (messages that name scratch paths are checked a piece at a time).
inline bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace TestSupport
