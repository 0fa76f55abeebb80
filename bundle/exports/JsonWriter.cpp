#include "bundle/exports/JsonWriter.h"

#include <cstdio>

#include "bundle/exports/utf8.h"

namespace vnt {

namespace {

constexpr size_t kFlushBytes = size_t{16} << 10;
constexpr uint64_t kNsPerMs = 1'000'000;

} // namespace

void appendJsonString(std::string& to, std::string_view text)
{
    to.push_back('"');
    for (const char c : validUtf8(text)) {
        if (c == '"' || c == '\\') {
            to.push_back('\\');
            to.push_back(c);
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            to.append(escape);
        } else {
            to.push_back(c);
        }
    }
    to.push_back('"');
}

std::string millisecondsText(int64_t ns)
{
    const uint64_t size = ns < 0 ? ~static_cast<uint64_t>(ns) + 1 : static_cast<uint64_t>(ns);
    std::string text = ns < 0 ? "-" : "";
    text += std::to_string(size / kNsPerMs);
    if (size % kNsPerMs != 0) {
        char fraction[8];
        std::snprintf(fraction, sizeof fraction, ".%06u", static_cast<unsigned>(size % kNsPerMs));
        text += fraction;
        text.erase(text.find_last_not_of('0') + 1);
    }
    return text;
}

JsonWriter& JsonWriter::key(std::string_view name)
{
    separate();
    appendJsonString(_text, name);
    _text.push_back(':');
    _isAfterKey = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text)
{
    separate();
    appendJsonString(_text, text);
    return *this;
}

JsonWriter& JsonWriter::milliseconds(int64_t ns) { return raw(millisecondsText(ns)); }

JsonWriter& JsonWriter::raw(std::string_view json)
{
    separate();
    _text.append(json);
    return *this;
}

JsonWriter& JsonWriter::newLine()
{
    _breaksLine = true;
    return *this;
}

JsonWriter& JsonWriter::open(char bracket)
{
    separate();
    _text.push_back(bracket);
    _hasElements.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    _hasElements.pop_back();
    if (_breaksLine)
        _text.push_back('\n');
    _breaksLine = false;
    _text.push_back(bracket);
    if (_hasElements.empty())
        _text.push_back('\n');
    return *this;
}

/// What stands before the next value or key.
void JsonWriter::separate()
{
    if (_text.size() >= kFlushBytes)
        flush();
    if (_isAfterKey) {
        _isAfterKey = false;
        return;
    }
    if (!_hasElements.empty()) {
        if (_hasElements.back())
            _text.push_back(',');
        _hasElements.back() = true;
    }
    if (_breaksLine)
        _text.push_back('\n');
    _breaksLine = false;
}

void JsonWriter::flush()
{
    _out.write(_text);
    _text.clear();
}

} // namespace vnt
