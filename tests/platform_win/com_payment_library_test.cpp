// The COM adapter against a real in-process automation server (pin_pad_server/), registered with
// regsvr32 in the Wine prefix (or on the Windows machine) that runs this test.
#ifdef _WIN32

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/errors.h"
#include "engine/settings/layout.h"
#include "platform_win/com_payment_library_win.h"
#include "sim/world/memory_store.h"

// The test component's scripting (pin_pad_server.cpp), from the very module COM loads from its
// registered path beside this program.
extern "C" {
void TestPinPadScript(const wchar_t* member, const wchar_t* outcome);
const wchar_t* TestPinPadCalls();
void TestPinPadReset();
}

namespace kestrix::win {
namespace {

std::wstring besideThisProgram(const wchar_t* file) {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring self(path, n);
    return self.substr(0, self.find_last_of(L"\\/") + 1) + file;
}

// The member names are ASCII.
std::wstring wide(std::string_view ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

class ComAdapter : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        const std::wstring dll = besideThisProgram(L"kestrix_test_pin_pad.dll");
        s_registered = _wsystem((L"regsvr32.exe /s \"" + dll + L"\"").c_str()) == 0;
    }

    void SetUp() override {
        ASSERT_TRUE(s_registered) << "regsvr32 kestrix_test_pin_pad.dll failed";
        TestPinPadReset();
    }

    static void script(std::string_view member, const std::wstring& outcome) {
        TestPinPadScript(wide(member).c_str(), outcome.c_str());
    }
    static std::wstring calls() { return TestPinPadCalls(); }
    void map(std::string_view operation, std::string_view method) {
        store.set(store::kApp, store::section::kPinPadMethods, operation, method);
    }

    sim::MemoryStore store;

    static inline bool s_registered = false;
};

// Every operation is called by its default name (the component answers an unscripted member with
// its name), with its inputs as strings in the component's argument order; texts pass both ways
// in UTF-8 on our side. The class is named by its ProgID here, by its CLSID below, and found
// through the registered type library in the failure table.
TEST_F(ComAdapter, EveryOperationReachesTheComponentByItsDefaultName) {
    map("ProgID", "Kestrix.TestPinPad");
    ComPaymentLibrary library(store);
    script("GetCardHolder", L"text:PÉREZ ñ€");
    EXPECT_EQ(library.cardHolder(), "PÉREZ ñ€");
    const PinPadErrorDetails d = library.errorDetails();
    const PinPadIdentity id = library.identify();
    EXPECT_TRUE(id.online);
    const std::string results =
        library.readCard() + " " + library.cardNumber() + " " + library.result() + " " +
        library.displayMessage() + " " + library.operationNumber() + " " + library.responseCode() +
        " " + library.declineCause() + " " + library.errorText() + " " + library.errorCode() + " " +
        d.error + " " + d.description + " " + d.code + " " + d.extra + " " + id.emvFull + " " +
        id.model + " " + id.serialNumber + " " + id.tradeMark + " " + id.versionApp + " " + id.com +
        " " + id.printer + " " + id.company + " " + id.branch + " " + id.country;
    EXPECT_EQ(
        results,
        "ReadCard GetCardNumber GetResult GetDisplayMessage GetOperationNumber GetResponseCode "
        "GetDeclineCause GetErrorText GetErrorCode GetErrorDetail1 GetErrorDetail2 "
        "GetErrorDetail3 GetErrorDetail4 GetEMVFull GetModel GetSerialNumber GetTradeMark "
        "GetVersionApp GetCOM GetPrinter GetCompany GetBranch GetCountry");

    TestPinPadReset();
    EXPECT_EQ(library.prepareOperation("11"), "PrepareOperation");
    library.runSale(
        {"user", "secret", "Compañía", "Mérida", "MX", "PREPARED", "REF-7", "11", "MXN"});
    library.setNumericParameter("50");
    library.setCurrency("MXN");
    library.setAmount("25.5");
    library.setTextParameter("");
    library.closeOperation();
    library.cancelOperation();
    EXPECT_EQ(
        calls(),
        L"PrepareOperation(11)\nRunSale(user|secret||Compañía|Mérida|MX||PREPARED|REF-7|11|MXN)\n"
        L"SetNumericParameter(50)\nSetCurrency(MXN)\nSetAmount(25.5)\nSetTextParameter()\n"
        L"CloseOperation()\nCancelOperation()\n");
}

// A site's component may give a text through a string argument passed by reference, or have
// properties instead of methods; results of other types read as their text.
TEST_F(ComAdapter, ByReferenceResultsPropertiesAndOtherResultTypes) {
    map("readCard", "ReadCardRef&");
    map("prepareOperation", " PrepareOperationRef& ");
    map("setAmount", ".Amount");
    map("cardNumber", ".Amount");
    map("setTextParameter", "");
    map("ProgID", "{5E3C2A71-8D4B-4C3A-A1F2-7D9E0B6C4A12}");
    ComPaymentLibrary library(store);
    script("ReadCardRef", L"text:NO CARD");
    script("PrepareOperationRef", L"text:OP-11");
    script("GetResult", L"number:5");

    EXPECT_EQ(library.readCard(), "NO CARD");
    EXPECT_EQ(library.prepareOperation("11"), "OP-11");
    library.setAmount("12.5");
    EXPECT_EQ(library.cardNumber(), "12.5") << "the property reads back what was assigned";
    library.setTextParameter("not called");
    EXPECT_EQ(library.result(), "5");
    EXPECT_EQ(calls(),
              L"ReadCardRef(&)\nPrepareOperationRef(11|&)\nput Amount(12.5)\nget Amount()\n"
              L"GetResult()\n");

    script("Identify", L"bool:1");
    EXPECT_TRUE(library.identify().online);
    script("Identify", L"bool:0");
    EXPECT_FALSE(library.identify().online);
}

// Each failure comes to the engine as the error number and text the console shows.
TEST_F(ComAdapter, FailuresComeAsTheErrorNumbersTheConsoleReports) {
    struct Row {
        const char* what;
        std::wstring outcome;  // of the card read ("": the component is not reached)
        int number;
        std::string text;
        std::string readCard = {};  // mapped to the card read, else its default name
        std::string progId = {};
    };
    const std::vector<Row> rows = {
        {"a name the component does not have", L"absent", 438,
         "Object doesn't support this property or method (LeerTarjeta)", "LeerTarjeta"},
        {"a Visual Basic error raised in the component",
         L"raise:0x800A0005:0:Invalid procedure call", 5, "Invalid procedure call (ReadCard)"},
        {"the component's own error", L"raise:0x800403E9:0:Pin pad not connected", -2147220503,
         "Pin pad not connected (ReadCard)"},
        {"an error given as a code", L"raise:0:1001:Card reader time-out", 1001,
         "Card reader time-out (ReadCard)"},
        {"wrong number of arguments", L"fail:0x8002000E", 450,
         "Wrong number of arguments or invalid property assignment (ReadCard)"},
        {"an argument of the wrong type", L"fail:0x80020005", 13, "Type mismatch (ReadCard)"},
        {"any other failure", L"fail:0x80004005", -2147467259, "(ReadCard)"},
        {"a ProgID that is not registered", L"", 429,
         "ActiveX component can't create object (Kestrix.NotRegistered)", "",
         "Kestrix.NotRegistered"},
        {"a class that is not registered", L"", 429, "ActiveX component can't create object", "",
         "{B0A5E1C4-2F7D-4E21-9C3B-6A8D5F1E0C97}"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        store = sim::MemoryStore();
        TestPinPadReset();
        if (!row.readCard.empty()) {
            map("readCard", row.readCard);
        }
        if (!row.progId.empty()) {
            map("ProgID", row.progId);
        }
        script(row.readCard.empty() ? "ReadCard" : row.readCard, row.outcome);
        ComPaymentLibrary library(store);
        try {
            library.readCard();
            ADD_FAILURE() << "the card read succeeded";
        } catch (const KsxError& e) {
            EXPECT_EQ(e.number(), row.number);
            EXPECT_NE(std::string(e.what()).find(row.text), std::string::npos) << e.what();
            EXPECT_EQ(e.source(), "cpIntegracionEMV");
        }
    }
}

}  // namespace
}  // namespace kestrix::win

#endif  // _WIN32
