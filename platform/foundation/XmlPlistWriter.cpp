#include "platform/foundation/ObjectGraph.h"
#include "platform/foundation/base64.h"
#include "platform/foundation/civil_time.h"
#include "platform/foundation/plist_codecs.h"
#include "platform/foundation/utf8.h"

namespace vnt::plist {
namespace {

/// Shared parts are spelled out each time in XML: a graph that would pass this size is refused.
constexpr size_t kMaxXmlBytes = size_t{256} << 20;
constexpr size_t kBase64LineBytes = 57; // 76 characters

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";

/// Writes with a stack of open collections.
class XmlWriter {
public:
    Result<std::vector<std::byte>> write(const Object& root)
    {
        _out = kHead;
        RETURN_IF_ERROR(value(root));
        while (!_open.empty()) {
            RETURN_IF_ERROR(step());
            if (_out.size() > kMaxXmlBytes)
                return Status(Code::kTooLarge, "property list: more than 256 MiB as XML");
        }
        _out += "</plist>\n";
        const auto bytes = std::as_bytes(std::span(_out));
        return std::vector<std::byte>(bytes.begin(), bytes.end());
    }

private:
    struct OpenCollection {
        const Object* object;
        size_t next;
    };

    Status step()
    {
        OpenCollection& open = _open.back();
        const size_t index = open.next++;
        if (const auto* array = as<Array>(open.object)) {
            if (index < array->count())
                return value(*array->at(index));
            return close("array");
        }
        const auto& entries = static_cast<const Dictionary*>(open.object)->entries();
        if (index == entries.size())
            return close("dict");
        const auto* key = as<String>(entries[index].first.get());
        if (!key)
            return Status(Code::kUnsupported, "property list: a key that is no string in XML");
        indent();
        _out += "<key>";
        RETURN_IF_ERROR(text(key->str()));
        _out += "</key>\n";
        return value(*entries[index].second);
    }

    void indent() { _out.append(_open.size(), '\t'); }

    Status close(std::string_view name)
    {
        _open.pop_back();
        indent();
        _out.append("</").append(name).append(">\n");
        return {};
    }

    Status open(const Object& object, std::string_view name, size_t count)
    {
        indent();
        _out.append("<").append(name).append(count == 0 ? "/>\n" : ">\n");
        if (count == 0)
            return {};
        if (_open.size() >= ObjectGraph::kMaxDepth)
            return Status(Code::kTooLarge,
                          "property list: nested deeper than " + std::to_string(ObjectGraph::kMaxDepth)
                              + " levels, or a collection holds itself");
        _open.push_back({&object, 0});
        return {};
    }

    Status value(const Object& object)
    {
        switch (object.typeId()) {
        case TypeId::kArray:
            return open(object, "array", static_cast<const Array&>(object).count());
        case TypeId::kDictionary:
            return open(object, "dict", static_cast<const Dictionary&>(object).count());
        case TypeId::kString:
            indent();
            _out += "<string>";
            RETURN_IF_ERROR(text(static_cast<const String&>(object).str()));
            _out += "</string>\n";
            return {};
        case TypeId::kNumber:
            number(static_cast<const Number&>(object));
            return {};
        case TypeId::kDate:
            element("date", formatIso8601(static_cast<const Date&>(object).secondsSince2001()));
            return {};
        case TypeId::kData:
            data(static_cast<const Data&>(object).bytes());
            return {};
        default:
            return Status(Code::kUnsupported,
                          "property list: " + object.description() + " is of no type that XML can hold");
        }
    }

    void element(std::string_view name, std::string_view content)
    {
        indent();
        _out.append("<").append(name).append(">").append(content).append("</").append(name).append(">\n");
    }

    void number(const Number& number)
    {
        if (number.isBool()) {
            indent();
            _out += number.boolValue() ? "<true/>\n" : "<false/>\n";
        } else {
            element(number.kind() == Number::Kind::kDouble ? "real" : "integer", number.description());
        }
    }

    void data(std::span<const std::byte> bytes)
    {
        indent();
        _out += "<data>\n";
        for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), kBase64LineBytes))) {
            indent();
            _out += base64Encoded(bytes.first(std::min(bytes.size(), kBase64LineBytes))) + "\n";
        }
        indent();
        _out += "</data>\n";
    }

    /// Escapes; refuses what no XML document may hold.
    Status text(const std::string& text)
    {
        for (size_t offset = 0; offset < text.size();) {
            const size_t start = offset;
            const uint32_t c = nextCodePoint(text, offset);
            if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0xfffe || c == 0xffff)
                return Status(Code::kUnsupported, "property list: a text holds a character that XML cannot");
            if (c == '&')
                _out += "&amp;";
            else if (c == '<')
                _out += "&lt;";
            else if (c == '>')
                _out += "&gt;";
            else if (c == '\r')
                _out += "&#13;"; // a plain one would be read back as a line feed
            else
                _out.append(text, start, offset - start);
        }
        return {};
    }

    std::string _out;
    std::vector<OpenCollection> _open;
};

} // namespace

Result<std::vector<std::byte>> writeXml(const Object& root) { return XmlWriter().write(root); }

} // namespace vnt::plist
