#include "console_commands.h"

#include "setup.h"

namespace kestrix {

void SetupCommands::edit(const std::string& name, const std::string& text, int value) {
    m_setup.operatorEdit(name, text, value);
}

void SetupCommands::click(const std::string& name) {
    m_setup.operatorClick(name);
}

void SetupCommands::close() {
    m_setup.Form_Unload();
}

std::string SetupCommands::setting(std::string_view section, std::string_view key) {
    return m_setup.getSetting(section, key, "");
}

void SetupCommands::saveSetting(std::string_view section, std::string_view key,
                                std::string_view value) {
    m_setup.saveSetting(section, key, value);
}

}  // namespace kestrix
