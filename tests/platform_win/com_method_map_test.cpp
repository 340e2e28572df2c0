#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform_win/com_method_map.h"

namespace kestrix::win {
namespace {

// The plain, by-reference, property and empty forms are the COM adapter test's, under Wine.
TEST(ComMethodMap, ValueForms) {
    struct Row {
        std::string value;
        com::CallKind kind;
        std::string name;
        bool byReference;
    };
    const std::vector<Row> rows = {
        {"sn_Venta2", com::CallKind::Method, "sn_Venta2", false},
        {"ObtenerNúmero", com::CallKind::Method, "ObtenerNúmero", false},
        {"   ", com::CallKind::Skip, "", false},
    };
    for (const Row& row : rows) {
        const com::MethodCall call = com::parseMethodCall(row.value);
        EXPECT_EQ(call.kind, row.kind) << row.value;
        EXPECT_EQ(call.name, row.name) << row.value;
        EXPECT_EQ(call.resultByReference, row.byReference) << row.value;
    }
    for (const std::string bad :
         {"Leer Tarjeta", "1Leer", "&", ".", ".Modelo&", "Venta()", "Venta;Kill"}) {
        EXPECT_THROW(com::parseMethodCall(bad), std::invalid_argument) << bad;
    }
}

}  // namespace
}  // namespace kestrix::win
