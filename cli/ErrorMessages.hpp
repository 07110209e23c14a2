#pragma once

#include <exception>
#include <string>

namespace velto::cli {

// One line for standard error: "velto: " + what went wrong + what to do about it.
// `what` is the error's own description (the library's fixed texts, or a platform's).
std::string failureLine(const std::exception_ptr& error);
std::string failureLine(const std::string& problem);
// The advice that follows an error's description; empty when there is none to give.
std::string adviceFor(const std::exception_ptr& error);

}  // namespace velto::cli
