#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bundle/exports/OutputSink.h"

namespace vnt {

/// Writes JSON piece by piece, so that a document of gigabytes needs no memory. Puts the commas; callers open and close
/// in pairs. Strings may be anything: what is not UTF-8 is replaced. One thread.
class JsonWriter {
public:
    /// `out` outlives this.
    explicit JsonWriter(OutputSink& out) : _out(out) { }
    ~JsonWriter() { flush(); }
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }
    /// Of an object; the value is what is written next.
    JsonWriter& key(std::string_view name);
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(bool flag) { return raw(flag ? "true" : "false"); }
    template <std::integral Number> JsonWriter& value(Number number) { return raw(std::to_string(number)); }
    JsonWriter& null() { return raw("null"); }
    /// Nanoseconds as milliseconds, exact.
    JsonWriter& milliseconds(int64_t ns);
    /// A number or anything else that is JSON already.
    JsonWriter& raw(std::string_view json);
    /// A line break, where it makes a large file bearable for people; anywhere between two values.
    JsonWriter& newLine();

    template <typename Value> JsonWriter& member(std::string_view name, const Value& content)
    {
        key(name);
        return value(content);
    }

private:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    void separate();
    void flush();

    OutputSink& _out;
    std::string _text;
    std::vector<bool> _hasElements; ///< of the open objects and arrays
    bool _isAfterKey = false;
    bool _breaksLine = false;
};

/// `text` as a JSON string with its quotes.
void appendJsonString(std::string& to, std::string_view text);
/// Nanoseconds as milliseconds without trailing zeros: "12.000345".
[[nodiscard]] std::string millisecondsText(int64_t ns);

} // namespace vnt
