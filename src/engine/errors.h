#pragma once

#include <stdexcept>
#include <string>

#include "platform/serial_port.h"
#include "platform/settings_store.h"

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
    static constexpr int kDivisionByZero = 11;
    static constexpr int kTypeMismatch = 13;
    static constexpr int kInvalidPropertyValue = 380;

private:
    int m_number;
    std::string m_source;
};

// Runs `statement` under a routine's error trap: the errors a trap is meant for (a device's port
// failing, the store failing, a conversion of device or store text) end the statement and give
// false; anything else (a logic error in the engine) is not a device fault and goes on up to
// the engine's top-level guard.
template <class Statement>
bool trapped(Statement&& statement) {
    try {
        statement();
        return true;
    } catch (const KsxError&) {
    } catch (const PortError&) {
    } catch (const StoreError&) {
    }
    return false;
}

}  // namespace kestrix
