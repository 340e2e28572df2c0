#pragma once

#include <string>
#include <string_view>

namespace kestrix {

class Setup;

// What an operator console may do to the engine, on the engine thread: edit and press its
// controls, close it, and read or write a setting of the store (the port paths its lists show,
// the simulated pin pad's steering). Nothing else of the engine is a view's business.
class ConsoleCommands {
public:
    virtual ~ConsoleCommands() = default;

    // The operator changed a control: a text box's or list's text, or a check box's value.
    virtual void edit(const std::string& name, const std::string& text, int value) = 0;
    // The operator pressed a button.
    virtual void click(const std::string& name) = 0;
    // The operator closed the console window: the engine's Exit.
    virtual void close() = 0;
    virtual std::string setting(std::string_view section, std::string_view key) = 0;
    virtual void saveSetting(std::string_view section, std::string_view key,
                             std::string_view value) = 0;
};

// The commands as the engine object carries them out.
class SetupCommands final : public ConsoleCommands {
public:
    explicit SetupCommands(Setup& setup) : m_setup(setup) {}

    void edit(const std::string& name, const std::string& text, int value) override;
    void click(const std::string& name) override;
    void close() override;
    std::string setting(std::string_view section, std::string_view key) override;
    void saveSetting(std::string_view section, std::string_view key,
                     std::string_view value) override;

private:
    Setup& m_setup;
};

}  // namespace kestrix
