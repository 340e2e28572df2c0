#include "cctalk.h"

#include <stdexcept>

namespace kestrix::cctalk {

namespace {
std::uint8_t at(std::string_view bytes, std::size_t i) {
    return static_cast<std::uint8_t>(bytes[i]);
}
char toChar(std::uint8_t b) {
    return static_cast<char>(b);
}
}  // namespace

std::uint8_t checksum(std::string_view bytes) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        sum += at(bytes, i);
    }
    return static_cast<std::uint8_t>((256U - (sum & 0xFFU)) & 0xFFU);
}

std::string buildFrame(std::uint8_t destination, std::uint8_t hdr, std::string_view data,
                       std::uint8_t source) {
    if (data.size() > 255) {
        throw std::length_error("a ccTalk frame carries at most 255 data bytes");
    }
    std::string frame;
    frame.reserve(data.size() + kMinFrameSize);
    frame += toChar(destination);
    frame += toChar(static_cast<std::uint8_t>(data.size()));
    frame += toChar(source);
    frame += toChar(hdr);
    frame.append(data);
    frame += toChar(checksum(frame));
    return frame;
}

std::optional<Frame> parseFrame(std::string_view bytes) {
    if (bytes.size() < kMinFrameSize || bytes.size() != at(bytes, 1) + kMinFrameSize) {
        return std::nullopt;
    }
    if (checksum(bytes) != 0) {
        return std::nullopt;
    }
    Frame f;
    f.destination = at(bytes, 0);
    f.source = at(bytes, 2);
    f.header = at(bytes, 3);
    f.data = std::string(bytes.substr(4, at(bytes, 1)));
    return f;
}

std::optional<Found> findFrame(std::string_view bytes, std::uint8_t destination,
                               std::uint8_t source) {
    for (std::size_t i = 0; i + kMinFrameSize <= bytes.size(); ++i) {
        if (at(bytes, i) != destination || at(bytes, i + 2) != source) {
            continue;
        }
        const std::size_t size = at(bytes, i + 1) + kMinFrameSize;
        if (i + size > bytes.size()) {
            continue;  // not all here yet, or noise that looks like a frame start
        }
        if (std::optional<Frame> f = parseFrame(bytes.substr(i, size))) {
            return Found{std::move(*f), i + size};
        }
    }
    return std::nullopt;
}

std::string hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) {
            out += ' ';
        }
        out += kDigits[at(bytes, i) >> 4];
        out += kDigits[at(bytes, i) & 0x0F];
    }
    return out;
}

}  // namespace kestrix::cctalk
