#include "bundle/DebugServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "bundle/Symbolizer.h"
#include "bundle/TestBundle.h"

namespace vnt {
namespace {

using test::kTextAddress;

/// A debuginfod server on loopback: answers /buildid/ID/executable and /debuginfo from a table.
class HttpServer {
public:
    HttpServer(std::map<std::string, std::string> files, bool isSilent) : _files(std::move(files)), _isSilent(isSilent)
    {
        _listener = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        VNT_CHECK(::bind(_listener.get(), reinterpret_cast<sockaddr*>(&address), size) == 0);
        VNT_CHECK(::listen(_listener.get(), 8) == 0);
        VNT_CHECK(::getsockname(_listener.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        _thread = std::thread([this] { serve(); });
    }
    ~HttpServer()
    {
        ::shutdown(_listener.get(), SHUT_RDWR); // ends the accept
        _thread.join();
    }
    std::string url;
    std::atomic<int> requests{0};

private:
    void serve()
    {
        for (;;) {
            UniqueFd client(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client)
                return;
            std::string request;
            char buffer[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                const auto size = ::recv(client.get(), buffer, sizeof buffer, 0);
                if (size <= 0)
                    break;
                request.append(buffer, static_cast<size_t>(size));
            }
            ++requests;
            if (_isSilent) { // says nothing until the client has had enough
                (void)::recv(client.get(), buffer, sizeof buffer, 0);
                continue;
            }
            const size_t from = request.find(' ') + 1;
            const auto file = _files.find(request.substr(from, request.find(' ', from) - from));
            const std::string body = file == _files.end() ? "" : file->second;
            const std::string answer = std::string("HTTP/1.1 ") + (file == _files.end() ? "404 Not Found" : "200 OK")
                + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
            (void)::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }
    std::map<std::string, std::string> _files;
    const bool _isSilent;
    UniqueFd _listener;
    std::thread _thread;
};

struct DebugServerTest : testing::Test {
    std::string directory = test::freshDirectory("debuginfod");
    void use(const std::string& url) const
    {
        ::setenv("DEBUGINFOD_URLS", url.c_str(), 1);
        ::setenv("DEBUGINFOD_CACHE_PATH", (directory + "/cache").c_str(), 1);
        ::setenv("no_proxy", "127.0.0.1", 1); // nothing leaves this machine
    }
    void TearDown() override { ::unsetenv("DEBUGINFOD_URLS"); }
};

TEST_F(DebugServerTest, NamesAProgramThatIsNotHere)
{
    const std::string program = test::testElf<test::Elf64>({{"_Z6answerv", kTextAddress, 0x100}}, "abcd");
    const std::string other = test::testElf<test::Elf64>({{"foreign", kTextAddress, 0x100}}, "xxxx");
    HttpServer http({{"/buildid/61626364/executable", program}, {"/buildid/65666768/executable", other}}, false);
    use(http.url);
    std::string progress;
    auto server = DebugServer::open([&](const std::string& what, long, long) { progress = what; });
    if (server.code() == Code::kUnsupported)
        GTEST_SKIP() << server.status().message();
    ASSERT_TRUE(server.ok()) << server.status().message();
    const auto imageOf = [&](const char* buildId) {
        return test::signaturesOf(
            {{7,
              test::processSignature(7, "program",
                                     {test::image(test::kModuleStart, test::kTextSize, test::kTextOffset,
                                                  directory + "/gone", buildId)})}});
    };
    const struct {
        const char* what;
        const char* buildId;
        bool asks;
        std::string function;
        std::string remark;
    } rows[] = {
        {"not asked for", "61626364", false, "[unknown] in gone", "no symbols of"},
        {"fetched", "61626364", true, "answer()", ""},
        {"unknown to the server", "6969", true, "[unknown] in gone", "gone: no server has it"},
        {"another file than asked for", "65666768", true, "[unknown] in gone", "gone: a server sent another file"},
    };
    for (const auto& row : rows) {
        Remarks remarks;
        const int before = http.requests;
        const auto signatures = imageOf(row.buildId);
        Symbolizer symbolizer(signatures.get(), remarks, {nullptr, row.asks ? server.value().get() : nullptr, nullptr});
        const uint32_t symbol = symbolizer.resolve(7, test::kModuleStart + 0x10, 1, FrameRole::kExact).symbol;
        EXPECT_EQ(symbolizer.symbol(symbol).function, row.function) << row.what;
        EXPECT_EQ(http.requests != before, row.asks) << row.what;
        ASSERT_EQ(remarks.texts().empty(), row.remark.empty()) << row.what << ": " << remarks.texts().front();
        if (!row.remark.empty()) {
            EXPECT_TRUE(remarks.texts().front().starts_with(row.remark)) << row.what << ": " << remarks.texts().front();
        }
    }
}

TEST_F(DebugServerTest, AServerThatSaysNothingIsGivenUp)
{
    HttpServer http({}, true);
    use(http.url);
    DebugServer::Limits limits;
    limits.each = std::chrono::seconds(1);
    limits.all = std::chrono::seconds(1);
    auto server = DebugServer::open({}, limits);
    if (server.code() == Code::kUnsupported)
        GTEST_SKIP() << server.status().message();
    ASSERT_TRUE(server.ok());
    EXPECT_EQ(server.value()->executable("73696c656e74", "program").code(), Code::kTimedOut);
    const int asked = http.requests;
    EXPECT_EQ(server.value()->executable("73696c656e74", "program").code(), Code::kTimedOut) << "no time is left";
    EXPECT_EQ(http.requests, asked);
}

TEST_F(DebugServerTest, NeedsServers)
{
    ::unsetenv("DEBUGINFOD_URLS");
    EXPECT_EQ(DebugServer::open({}).code(), Code::kInvalid);
    use(" ");
    EXPECT_EQ(DebugServer::open({}).code(), Code::kInvalid);
}

} // namespace
} // namespace vnt
