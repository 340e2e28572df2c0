#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/settings/layout.h"
#include "platform_win/com_method_map.h"
#include "sim/world/memory_store.h"

namespace kestrix::win {
namespace {

TEST(ComMethodMap, EveryOperationHasAUsableDefault) {
    std::set<std::string_view> keys;
    for (const com::Operation& op : com::operations()) {
        EXPECT_TRUE(keys.insert(op.key).second) << "duplicate " << op.key;
        const com::MethodCall call = com::parseMethodCall(op.defaultMapping);
        EXPECT_EQ(call.kind, com::CallKind::Method) << op.key;
        EXPECT_FALSE(call.name.empty()) << op.key;
    }
    EXPECT_EQ(com::operation("runSale").inputs, 11);
    EXPECT_THROW(com::operation("formatDisk"), std::out_of_range);
}

TEST(ComMethodMap, ValueForms) {
    struct Row {
        std::string value;
        com::CallKind kind;
        std::string name;
        bool byReference;
    };
    const std::vector<Row> rows = {
        {"LeerTarjeta", com::CallKind::Method, "LeerTarjeta", false},
        {" LeerTarjeta& ", com::CallKind::Method, "LeerTarjeta", true},
        {".Modelo", com::CallKind::Property, "Modelo", false},
        {"sn_Venta2", com::CallKind::Method, "sn_Venta2", false},
        {"ObtenerNúmero", com::CallKind::Method, "ObtenerNúmero", false},
        {"", com::CallKind::Skip, "", false},
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

TEST(ComMethodMap, StoreOverridesTheDefault) {
    sim::MemoryStore store;
    EXPECT_EQ(com::lookUp(store, "readCard").name, "ReadCard");
    store.set(store::kApp, store::section::kPinPadMethods, "readCard", "LeerTarjeta&");
    store.set(store::kApp, store::section::kPinPadMethods, "setTextParameter", "");
    EXPECT_EQ(com::lookUp(store, "readCard").name, "LeerTarjeta");
    EXPECT_TRUE(com::lookUp(store, "readCard").resultByReference);
    EXPECT_EQ(com::lookUp(store, "setTextParameter").kind, com::CallKind::Skip);
}

}  // namespace
}  // namespace kestrix::win
