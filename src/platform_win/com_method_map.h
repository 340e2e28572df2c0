#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/settings_store.h"

// How the card payment library's operations are called on the registered COM component. The
// component's method names are site-specific, so each operation is looked up in the store
// (section "Pin Pad Methods", key = the operation's name below) and falls back to a default.
//
// A value is written
//   "Name"   a method; the operation's input texts are passed by value, in order, and the text
//            it gives is the method's return value;
//   "Name&"  the same, but the text comes back in one more argument passed by reference (a
//            string that the method fills), after the inputs;
//   ".Name"  a property: read for operations that give a text, assigned for operations that
//            take one;
//   ""       the operation is not called; it gives an empty text.
// Blanks around the name are ignored. This file is standard C++ so the mapping can be checked
// on every platform; only the adapter that calls the component is Windows-only.
namespace kestrix::win::com {

inline constexpr std::string_view kInterfaceId = "{0CF2F7EF-EA1D-4DC0-9B6E-BB68386C3B90}";
// Key (section "Pin Pad Methods") of the component's ProgID or "{CLSID}". Empty (the default):
// the class is found through the type library registered for kInterfaceId.
inline constexpr std::string_view kClassKey = "ProgID";
// The component's source name in error reports.
inline constexpr std::string_view kComponentName = "cpIntegracionEMV";

enum class CallKind { Method, Property, Skip };

struct MethodCall {
    CallKind kind = CallKind::Method;
    std::string name;
    bool resultByReference = false;  // "Name&"
};

struct Operation {
    std::string_view key;             // the store key, also the name used in errors
    std::string_view defaultMapping;  // what is used when the store has no value
    int inputs;                       // number of input texts
    bool givesText;                   // whether the operation reads a text back
};

// Every operation, in the order of the library's call table, then identification. The
// defaults name each operation after its role; a kiosk whose component names them otherwise
// writes its own names into the store.
const std::vector<Operation>& operations();
const Operation& operation(std::string_view key);

// Parses a mapping value. Throws std::invalid_argument for a value that is not a name in one
// of the forms above (the name must be letters, digits and "_", not starting with a digit;
// non-ASCII letters are accepted).
MethodCall parseMethodCall(std::string_view value);

// The call for `key`: the store's value when present, else the default.
MethodCall lookUp(SettingsStore& store, std::string_view key);

}  // namespace kestrix::win::com
