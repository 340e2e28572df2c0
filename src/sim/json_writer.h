#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrix::sim {

// A small streaming JSON writer for the models' state dumps. It places the commas; the caller
// keeps objects and arrays balanced.
class JsonWriter {
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    // The name of the next member of the current object.
    JsonWriter& key(std::string_view name);
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
    JsonWriter& value(long long number);
    JsonWriter& value(int number) { return value(static_cast<long long>(number)); }
    JsonWriter& value(double number);
    JsonWriter& value(bool flag);
    JsonWriter& null();
    // Inserts an already written JSON value (another model's dump).
    JsonWriter& raw(std::string_view json);
    JsonWriter& array(const std::vector<int>& numbers);
    JsonWriter& array(const std::vector<std::string>& texts);

    const std::string& text() const { return m_out; }

    static std::string quoted(std::string_view text);

private:
    void separate();

    std::string m_out;
    // Per open container: true once it holds an element.
    std::vector<bool> m_hasElement;
    bool m_afterKey = false;
};

}  // namespace kestrix::sim
