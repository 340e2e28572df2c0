#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>

#include "engine/errors.h"
#include "engine/settings/layout.h"
#include "platform_qt/com_method_map.h"
#include "platform_qt/payment_library_factory.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_time.h"

namespace kestrix::qt {
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

struct FactoryWorld {
    sim::VirtualClock clock;
    sim::VirtualScheduler scheduler{clock};
    sim::MemoryStore store;
    std::unique_ptr<PaymentLibrary> make(const char* library) {
        if (library != nullptr) {
            store.set(store::kApp, store::section::kPinPad, store::key::kLibrary, library);
        }
        return makePaymentLibrary(store, clock, scheduler);
    }
};

TEST(PaymentLibraryFactory, SimulatedByDefault) {
    for (const char* choice : {static_cast<const char*>(nullptr), "", "simulated", " Simulated "}) {
        FactoryWorld w;
        auto lib = w.make(choice);
        EXPECT_NE(dynamic_cast<sim::SimPinPad*>(lib.get()), nullptr)
            << (choice ? choice : "(missing)");
    }
}

TEST(PaymentLibraryFactory, UnusableChoicesFailEveryCallInsteadOfSimulating) {
    struct Row {
        const char* choice;
        std::string mentions;
    };
#ifndef _WIN32
    const std::vector<Row> rows = {{"com", "Windows"}, {"comm", "\"comm\""}};
#else
    const std::vector<Row> rows = {{"comm", "\"comm\""}};
#endif
    for (const Row& row : rows) {
        FactoryWorld w;
        auto lib = w.make(row.choice);
        EXPECT_EQ(dynamic_cast<sim::SimPinPad*>(lib.get()), nullptr);
        try {
            lib->readCard();
            ADD_FAILURE() << row.choice << ": the card read succeeded";
        } catch (const KsxError& e) {
            EXPECT_EQ(e.number(), 429);
            EXPECT_NE(std::string(e.what()).find(row.mentions), std::string::npos) << e.what();
        }
        EXPECT_THROW(lib->identify(), KsxError);
    }
}

}  // namespace
}  // namespace kestrix::qt
