// The pin pad query of equipment initialisation: asks the payment library who the pin pad is and
// whether it is on line, shows the answer on the "Credit Card" tab and exports the on-line state.

#include "../settings/layout.h"
#include "../setup.h"
#include "card_payment.h"

namespace kestrix {

void CardPayment::queryPinPad() {
    Console& c = m_setup.console();
    bool online = false;
    try {
        const PinPadIdentity id = m_setup.platform().paymentLibrary.identify();
        online = id.online;
        // A pin pad that is not on line has nothing to tell: its fields keep "N/A".
        if (online) {
            c.setText("ccEMVFull", id.emvFull);
            c.setText("ccModel", id.model);
            c.setText("ccSerialNumber", id.serialNumber);
            c.setText("ccTradeMark", id.tradeMark);
            c.setText("ccVersionApp", id.versionApp);
            c.setText("ccCOM", id.com);
            c.setText("ccPrinter", id.printer);
            c.setText("ccCompany", id.company);
            c.setText("ccBranch", id.branch);
            c.setText("ccCountry", id.country);
        }
    } catch (const std::exception&) {
        // The pin pad sits behind the library, not behind one of our ports: a library that fails
        // to answer means a pin pad that is not on line, not a port to choose again.
        online = false;
    }
    const std::string state = online ? "Yes" : "No";
    c.setText("ccOnLine", state);
    m_setup.saveSetting(store::section::kPinPad, store::key::kOnLine, state);
}

}  // namespace kestrix
