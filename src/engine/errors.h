#pragma once

#include <stdexcept>
#include <string>

namespace kestrix {

// A run-time error in the manner of the engine's error traps: a number, a description and the
// routine that raised it. Routines catch errors at their boundary and do what their trap does.
class KsxError : public std::runtime_error {
public:
    KsxError(int number, const std::string& description, std::string source = {})
        : std::runtime_error(description), m_number(number), m_source(std::move(source)) {}

    int number() const { return m_number; }
    const std::string& source() const { return m_source; }

    static constexpr int kInvalidProcedureCall = 5;
    static constexpr int kOverflow = 6;
    static constexpr int kTypeMismatch = 13;
    static constexpr int kInvalidPropertyValue = 380;

private:
    int m_number;
    std::string m_source;
};

}  // namespace kestrix
