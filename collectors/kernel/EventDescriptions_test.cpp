#include "collectors/kernel/EventDescriptions.h"

#include <gtest/gtest.h>

#include <set>

#include "collectors/common/TracepointFormat.h"
#include "collectors/kernel/SystemCalls.h"

namespace vnt {
namespace {

const char kSwitch[] = R"(name: sched_switch
ID: 372
format:
	field:unsigned short common_type;	offset:0;	size:2;	signed:0;
	field:int common_pid;	offset:4;	size:4;	signed:1;

	field:char prev_comm[16];	offset:8;	size:16;	signed:0;
	field:pid_t prev_pid;	offset:24;	size:4;	signed:1;
	field:long prev_state;	offset:32;	size:8;	signed:1;
	field:pid_t next_pid;	offset:56;	size:4;	signed:1;

print fmt: "prev_comm=%s <&>", REC->prev_comm
)";

const char kExec[] = R"(name: sched_process_exec
ID: 365
format:
	field:__data_loc char[] filename;	offset:8;	size:4;	signed:0;
	field:const char * other;	offset:16;	size:8;	signed:0;

print fmt: "filename=%s", __get_str(filename)
)";

const TracepointPlan& planOf(const std::string& name)
{
    for (const TracepointPlan& plan : tracepointPlans()) {
        if (plan.name == name)
            return plan;
    }
    ADD_FAILURE() << name;
    return tracepointPlans().front();
}

std::vector<std::byte> record(size_t size, std::initializer_list<std::pair<size_t, uint32_t>> words)
{
    std::vector<std::byte> bytes(size);
    for (const auto& [offset, word] : words)
        std::memcpy(bytes.data() + offset, &word, sizeof word);
    return bytes;
}

TEST(TracepointFormat, FieldsAreReadAsTheKernelLaysThemOut)
{
    const auto format = TracepointFormat::parse(kSwitch);
    ASSERT_TRUE(format.ok()) << format.status().message();
    EXPECT_EQ(format.value().id, 372u);
    ASSERT_EQ(format.value().fields.size(), 4u) << "those of every event are left out";
    EXPECT_EQ(format.value().fields[0].type, "char[16]");
    EXPECT_EQ(format.value().recordBytes(), 60u);
    const Tracepoint tracepoint = Tracepoint::create(planOf("sched_switch"), format.value());
    const auto bytes = record(60, {{32, 0xfffffffeU}, {36, 0xffffffffU}, {56, 1234}});
    EXPECT_EQ(static_cast<int64_t>(tracepoint.values[0].in(bytes)), -2);
    EXPECT_EQ(tracepoint.values[1].in(bytes), 1234u);
    EXPECT_EQ(tracepoint.about.in(bytes), 1234u);
    EXPECT_EQ(tracepoint.values[1].in(std::span(bytes).first(59)), 0u) << "past the record's end";
}

TEST(TracepointFormat, TextsStayWithinTheRecord)
{
    const Tracepoint tracepoint =
        Tracepoint::create(planOf("sched_process_exec"), TracepointFormat::parse(kExec).take());
    EXPECT_EQ(tracepoint.format.fields[1].type, "const char *");
    struct Row {
        const char* what;
        uint32_t place; // offset, and length above
        const char* text;
    };
    const Row rows[] = {
        {"whole", 24 | 5u << 16, "true"},
        {"not ended", 24 | 3u << 16, "tru"},
        {"longer than the record", 24 | 0xffffu << 16, "true"},
        {"behind the record", 0xffff | 5u << 16, ""},
        {"empty", 24, ""},
    };
    for (const Row& row : rows) {
        auto bytes = record(32, {{8, row.place}});
        std::memcpy(bytes.data() + 24, "true", 5);
        EXPECT_EQ(tracepoint.textIn(bytes), row.text) << row.what;
    }
    EXPECT_EQ(tracepoint.textIn({}), "");
}

TEST(TracepointFormat, WhatIsNoDescriptionIsRefused)
{
    for (const char* text :
         {"", "name: x\n", "ID: 5\n", "name: x\nID: many\n", "name: x\nID: 5\n\tfield:int a;\toffset:b;\tsize:4;\n",
          "name: x\nID: 5\n\tfield:int a;\n", "name: x\nID: 5\n\tfield:a;\toffset:0;\tsize:4;\n",
          "name: x\nID: 5\n\tfield:int a;\toffset:99999999;\tsize:4;\n"})
        EXPECT_EQ(TracepointFormat::parse(text).code(), Code::kInvalid) << text;
}

TEST(EventTable, EveryClassHasEventsOrSaysWhyNot)
{
    std::set<uint32_t> planned, classes;
    for (const TracepointPlan& plan : tracepointPlans())
        planned.insert(plan.code);
    for (const EventClass& eventClass : eventClasses()) {
        EXPECT_NE(eventClass.without == nullptr, planned.count(eventClass.code) == 0) << eventClass.name;
        EXPECT_TRUE(classes.insert(eventClass.code).second);
        EXPECT_EQ(eventClass.code & 0xffff, 0xfffeu);
    }
    EXPECT_EQ(classes.size(), 16u);
    for (const uint32_t code : planned)
        EXPECT_TRUE(classes.count(code)) << code;
}

TEST(EventDescriptions, AreXmlOfEveryClass)
{
    const std::vector<Tracepoint> tracepoints{
        Tracepoint::create(planOf("sched_switch"), TracepointFormat::parse(kSwitch).take())};
    const std::string xml = describeEvents(std::span(tracepoints));
    EXPECT_NE(
        xml.find("<class code=\"0x0140fffe\" name=\"scheduling\">\n  <event system=\"sched\" name=\"sched_switch\" "
                 "id=\"372\">\n   <field name=\"prev_comm\" type=\"char[16]\" offset=\"8\" size=\"16\" "
                 "signed=\"0\"/>"),
        std::string::npos)
        << xml;
    EXPECT_NE(xml.find("format=\"&quot;prev_comm=%s &lt;&amp;&gt;&quot;, REC-&gt;prev_comm\""), std::string::npos)
        << xml;
    EXPECT_NE(xml.find("<class code=\"0xff00fffe\" name=\"remote calls\" without="), std::string::npos);
}

TEST(SystemCalls, HaveTheirNamesAndArguments)
{
    EXPECT_STREQ(systemCallName(0, false), "read");
    EXPECT_STREQ(systemCallName(3, true), "read");
    EXPECT_STREQ(systemCallName(systemCallLimit(), false), "");
    auto files = TraceFs::open();
    if (!files.ok())
        GTEST_SKIP() << "CANNOT READ THE KERNEL'S EVENTS HERE (needs root): " << files.status().message();
    EXPECT_EQ(systemCallArguments(files.value(), 0, false), (std::vector<std::string>{"fd", "buf", "count"}));
    EXPECT_EQ(systemCallArguments(files.value(), 110, false).size(), 0u) << "getppid";
    EXPECT_EQ(systemCallArguments(files.value(), 4, false).size(), 2u) << "stat, which has another name there";
    EXPECT_EQ(systemCallArguments(files.value(), 1000, false).size(), 6u) << "one that is not known";
    const auto xml = describeEvents();
    ASSERT_TRUE(xml.ok()) << xml.status().message();
    for (const char* name : {"sched_switch", "sys_enter", "page_fault_user", "sched_process_exec"})
        EXPECT_NE(xml.value().find(std::string("name=\"") + name + "\""), std::string::npos) << name;
}

} // namespace
} // namespace vnt
