#include "collectors/kernel/EventDescriptions.h"

#include <cstdio>

namespace vnt {
namespace {

/// Text as an attribute's value. Control characters, which XML cannot hold, become question marks.
std::string escaped(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
        }
    }
    return result;
}

std::string attribute(const char* name, std::string_view value)
{
    return std::string(" ") + name + "=\"" + escaped(value) + "\"";
}

void describe(const Tracepoint& tracepoint, std::string& xml)
{
    const TracepointFormat& format = tracepoint.format;
    xml += "  <event" + attribute("system", tracepoint.plan->system) + attribute("name", format.name)
        + attribute("id", std::to_string(format.id)) + ">\n";
    for (const TracepointFormat::Field& field : format.fields)
        xml += "   <field" + attribute("name", field.name) + attribute("type", field.type)
            + attribute("offset", std::to_string(field.offset)) + attribute("size", std::to_string(field.sizeBytes))
            + attribute("signed", field.isSigned ? "1" : "0") + "/>\n";
    xml += "   <print" + attribute("format", format.printFormat) + "/>\n  </event>\n";
}

} // namespace

std::string describeEvents(std::span<const Tracepoint> tracepoints)
{
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<events version=\"1\">\n";
    for (const EventClass& eventClass : eventClasses()) {
        char code[16];
        std::snprintf(code, sizeof code, "0x%08x", eventClass.code);
        xml += " <class" + attribute("code", code) + attribute("name", eventClass.name);
        if (eventClass.without)
            xml += attribute("without", eventClass.without);
        xml += ">\n";
        for (const Tracepoint& tracepoint : tracepoints) {
            if (tracepoint.plan->code == eventClass.code)
                describe(tracepoint, xml);
        }
        xml += " </class>\n";
    }
    return xml + "</events>\n";
}

Result<std::string> describeEvents(int traceFiles)
{
    ASSIGN_OR_RETURN(const TraceFs files, TraceFs::open(traceFiles));
    std::vector<uint32_t> codes;
    for (const EventClass& eventClass : eventClasses())
        codes.push_back(eventClass.code);
    ASSIGN_OR_RETURN(const std::vector<Tracepoint> tracepoints, loadTracepoints(files, codes));
    return describeEvents(std::span(tracepoints));
}

} // namespace vnt
