#include "services/authority/helper_messages.h"

#include <cstring>

namespace vnt {
namespace {

constexpr size_t kMaxTextBytes = 8192;
constexpr uint32_t kMaxGroups = 1024; // past what any login of practice is a member of

std::string readText(ByteCursor& cursor) { return std::string(cursor.text(kMaxTextBytes)); }

void writeTexts(ByteWriter& writer, const std::vector<std::string>& texts)
{
    const size_t count = texts.size() > kMaxGroups ? kMaxGroups : texts.size();
    writer.little(static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i)
        writer.text(texts[i]);
}

std::vector<std::string> readTexts(ByteCursor& cursor)
{
    const auto count = cursor.little<uint32_t>();
    if (count > kMaxGroups)
        cursor.fail();
    std::vector<std::string> texts;
    for (uint32_t i = 0; i < count && !cursor.failed(); ++i)
        texts.push_back(readText(cursor));
    return texts;
}

} // namespace

void wipe(std::string& text) { ::explicit_bzero(text.data(), text.capacity()); }

CheckOrder::~CheckOrder()
{
    wipe(userName);
    wipe(password);
}

void CheckOrder::write(ByteWriter& writer) const
{
    for (const std::string* text : {&asker, &userName, &password, &pamDirectory})
        writer.text(*text);
    writeTexts(writer, groups);
}

CheckOrder CheckOrder::read(ByteCursor& cursor)
{
    CheckOrder order;
    for (std::string* text : {&order.asker, &order.userName, &order.password, &order.pamDirectory})
        *text = readText(cursor);
    order.groups = readTexts(cursor);
    return order;
}

void CheckResult::write(ByteWriter& writer) const
{
    writer.little(static_cast<uint8_t>(isGranted));
    writer.text(userName);
    writer.little(user);
    writeTexts(writer, groups);
}

CheckResult CheckResult::read(ByteCursor& cursor)
{
    CheckResult result;
    result.isGranted = cursor.little<uint8_t>() == 1;
    result.userName = readText(cursor);
    result.user = cursor.little<uint32_t>();
    result.groups = readTexts(cursor);
    return result;
}

void AskOrder::write(ByteWriter& writer) const
{
    writer.little(user);
    writer.little(group);
    writer.little(process);
    for (const std::string* part : {&userName, &text, &problem, &pinentry})
        writer.text(*part);
    writeTexts(writer, groups);
}

AskOrder AskOrder::read(ByteCursor& cursor)
{
    AskOrder order;
    order.user = cursor.little<uint32_t>();
    order.group = cursor.little<uint32_t>();
    order.process = cursor.little<int32_t>();
    for (std::string* part : {&order.userName, &order.text, &order.problem, &order.pinentry})
        *part = readText(cursor);
    order.groups = readTexts(cursor);
    return order;
}

AskResult::~AskResult()
{
    wipe(userName);
    wipe(password);
}

void AskResult::write(ByteWriter& writer) const
{
    writer.little(status);
    writer.text(userName);
    writer.text(password);
}

AskResult AskResult::read(ByteCursor& cursor)
{
    AskResult result;
    result.status = cursor.little<int32_t>();
    result.userName = readText(cursor);
    result.password = readText(cursor);
    return result;
}

} // namespace vnt
