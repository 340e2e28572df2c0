#include "json_writer.h"

#include <cmath>
#include <cstdio>

namespace kestrix::sim {

void JsonWriter::separate() {
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasElement.empty()) {
        if (m_hasElement.back()) {
            m_out += ',';
        }
        m_hasElement.back() = true;
    }
}

JsonWriter& JsonWriter::beginObject() {
    separate();
    m_out += '{';
    m_hasElement.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    m_out += '}';
    if (!m_hasElement.empty()) {
        m_hasElement.pop_back();
    }
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    separate();
    m_out += '[';
    m_hasElement.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    m_out += ']';
    if (!m_hasElement.empty()) {
        m_hasElement.pop_back();
    }
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    separate();
    m_out += quoted(name);
    m_out += ':';
    m_afterKey = true;
    return *this;
}

std::string JsonWriter::quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (u < 0x20 || u >= 0x7F) {
                    // Bytes outside printable ASCII are escaped one by one, so any device text
                    // (even invalid UTF-8) still gives valid JSON.
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", u);
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    separate();
    m_out += quoted(text);
    return *this;
}

JsonWriter& JsonWriter::value(long long number) {
    separate();
    m_out += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(double number) {
    separate();
    if (!std::isfinite(number)) {
        m_out += "null";
        return *this;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.15g", number);
    m_out += buf;
    return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
    separate();
    m_out += flag ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    separate();
    m_out += "null";
    return *this;
}

JsonWriter& JsonWriter::raw(std::string_view json) {
    separate();
    m_out += json;
    return *this;
}

JsonWriter& JsonWriter::array(const std::vector<int>& numbers) {
    beginArray();
    for (const int n : numbers) {
        value(n);
    }
    return endArray();
}

JsonWriter& JsonWriter::array(const std::vector<std::string>& texts) {
    beginArray();
    for (const std::string& t : texts) {
        value(t);
    }
    return endArray();
}

}  // namespace kestrix::sim
