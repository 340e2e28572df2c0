// Must not compile: "CoinAcceptorEnable" is not a console control (the box is
// "CoinAcceptorEnabled"). Built by the FieldName.MisspeltControlDoesNotCompile test.
#include "engine/console.h"

int main() {
    kestrix::Console console;
    console.setChecked("CoinAcceptorEnabled", true);
    return console.checked("CoinAcceptorEnable") ? 0 : 1;
}
