#include "platform/foundation/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"

namespace vnt {
namespace {

void write(const std::string& path, std::string_view text)
{
    ASSERT_TRUE(sys::writeFileAtomically(path, std::as_bytes(std::span(text)), 0600).ok()) << path;
}

mode_t modeOf(const std::string& path) { return sys::statLink(path).value().st_mode & 07777; }

TEST(Files, TakesPathsApart)
{
    struct Row {
        const char* path;
        const char* last;
        const char* parent;
        const char* bare;
    } rows[] = {
        {"/a/b.app/", "b.app", "/a", "/a/b"},
        {"/a/b.c.d", "b.c.d", "/a", "/a/b.c"},
        {"name.ext", "name.ext", "", "name"},
        {"/.hidden", ".hidden", "/", "/.hidden"},
        {"/a.b/c", "c", "/a.b", "/a.b/c"},
        {"/a//b", "b", "/a", "/a//b"},
        {"/", "/", "/", "/"},
        {"", "", "", ""},
        {"a.", "a.", "", "a."},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(lastPathComponent(row.path), row.last) << row.path;
        EXPECT_EQ(withoutLastPathComponent(row.path), row.parent) << row.path;
        EXPECT_EQ(withoutPathExtension(row.path), row.bare) << row.path;
    }
}

TEST(Files, CreatesDirectoriesAndEmptyFiles)
{
    const std::string root = temporaryDirectory() + "/files";
    EXPECT_FALSE(createDirectory(root + "/a/b"));
    EXPECT_FALSE(createDirectory(root + "/a/b"));
    EXPECT_TRUE(isDirectory(root + "/a/b"));
    EXPECT_TRUE(createEmptyFile(root + "/file").ok());
    const Ref<Error> error = createDirectory(root + "/file/below");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ENOTDIR);
    EXPECT_TRUE(createDirectory(""));

    write(root + "/file", "content");
    EXPECT_TRUE(createEmptyFile(root + "/file").ok());
    EXPECT_EQ(sys::readFile(root + "/file", 10).value(), "");
    write(root + "/precious", "kept");
    ASSERT_EQ(::symlink("precious", (root + "/link").c_str()), 0);
    EXPECT_TRUE(createEmptyFile(root + "/link").ok());
    EXPECT_TRUE(S_ISREG(sys::statLink(root + "/link").value().st_mode));
    EXPECT_EQ(sys::readFile(root + "/precious", 10).value(), "kept");
    EXPECT_FALSE(createEmptyFile(root + "/a").ok());
    ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0600), 0);
    EXPECT_FALSE(createEmptyFile(root + "/fifo").ok()); // and does not wait for a reader
    EXPECT_FALSE(createEmptyFile(root + "/missing/file").ok());
}

TEST(Files, RemovesATreeWithoutFollowingLinks)
{
    const std::string root = temporaryDirectory() + "/tree";
    const std::string outside = temporaryDirectory() + "/outside";
    ASSERT_FALSE(createDirectory(root + "/a/b/c"));
    ASSERT_FALSE(createDirectory(outside));
    write(outside + "/kept", "kept");
    write(root + "/a/b/file", "x");
    ASSERT_EQ(::symlink(outside.c_str(), (root + "/a/link").c_str()), 0);
    ASSERT_TRUE(removeTree(root).ok());
    EXPECT_FALSE(fileExists(root));
    EXPECT_TRUE(fileExists(outside + "/kept"));
    ASSERT_EQ(::symlink(outside.c_str(), root.c_str()), 0);
    ASSERT_TRUE(removeTree(root).ok());
    EXPECT_TRUE(fileExists(outside + "/kept"));
    EXPECT_EQ(removeTree(root).code(), Code::kNotFound);
}

TEST(Files, KeepsTheStateDirectoryPrivate)
{
    const auto directory = stateDirectory();
    ASSERT_TRUE(directory.ok()) << directory.status().message();
    EXPECT_EQ(directory.value(), sys::environmentOr("XDG_STATE_HOME", "") + "/vantora");
    EXPECT_EQ(modeOf(directory.value()), 0700u);
    ASSERT_EQ(::chmod(directory.value().c_str(), 0755), 0);
    ASSERT_TRUE(stateDirectory().ok());
    EXPECT_EQ(modeOf(directory.value()), 0700u);
    ASSERT_TRUE(removeTree(directory.value()).ok());
    ASSERT_EQ(::symlink("/tmp", directory.value().c_str()), 0);
    EXPECT_EQ(stateDirectory().code(), Code::kDenied);
    ASSERT_EQ(::unlink(directory.value().c_str()), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::mkdir(directory.value().c_str(), 0700), 0);
        ASSERT_EQ(::chown(directory.value().c_str(), 65534, 65534), 0);
        EXPECT_EQ(stateDirectory().code(), Code::kDenied);
        ASSERT_TRUE(removeTree(directory.value()).ok());
    }
}

TEST(Files, FindsTheTemporaryAndHomeDirectories)
{
    const std::string before = sys::environmentOr("TMPDIR", "");
    const std::pair<const char*, std::string> rows[] = {
        {"relative", "/tmp"}, {"/no/such/directory", "/tmp"}, {"/etc/passwd", "/tmp"}, {"/usr//", "/usr"}};
    for (const auto& [value, expected] : rows) {
        ::setenv("TMPDIR", value, 1);
        EXPECT_EQ(temporaryDirectory(), expected) << value;
    }
    ::setenv("TMPDIR", before.c_str(), 1);
    const std::string home = sys::environmentOr("HOME", "/");
    ::unsetenv("HOME");
    EXPECT_TRUE(homeDirectory().starts_with('/'));
    ::setenv("HOME", home.c_str(), 1);
}

TEST(UserDefaults, ReadsBooleansFromBothFormsAndNothingFromDamage)
{
    const std::string directory = sys::environmentOr("XDG_CONFIG_HOME", "") + "/vantora";
    const std::string path = directory + "/defaults.plist";
    EXPECT_FALSE(userDefaultBool("yes"));
    ASSERT_FALSE(createDirectory(directory));
    const Ref<Dictionary> values = Dictionary::create({{String::create("yes"), Number::withBool(true)},
                                                       {String::create("no"), Number::withBool(false)},
                                                       {String::create("one"), Number::withInt(1)},
                                                       {String::create("text"), String::create("YES")},
                                                       {String::create("list"), Array::create()}});
    for (const auto form : {PropertyListFormat::kBinary, PropertyListFormat::kXml}) {
        ASSERT_TRUE(sys::writeFileAtomically(path, writePropertyList(*values, form).value(), 0600).ok());
        EXPECT_TRUE(userDefaultBool("yes"));
        EXPECT_TRUE(userDefaultBool("one"));
        EXPECT_TRUE(userDefaultBool("text"));
        EXPECT_FALSE(userDefaultBool("no"));
        EXPECT_FALSE(userDefaultBool("list"));
        EXPECT_FALSE(userDefaultBool("absent"));
    }
    write(path, "<plist><dict><key>yes</key><true/>");
    EXPECT_FALSE(userDefaultBool("yes"));
    write(path, "<plist><array/></plist>");
    EXPECT_FALSE(userDefaultBool("yes"));
}

TEST(ProcessEnvironment, KeepsItsOrderAndTheLaterOfTwoValues)
{
    char first[] = "ZED=1";
    char second[] = "A=x=y";
    char noName[] = "=strange";
    char noValue[] = "bare";
    char empty[] = "EMPTY=";
    char again[] = "ZED=2";
    char* entries[] = {first, second, noName, noValue, empty, again, nullptr};
    char** const before = ::environ;
    ::environ = entries;
    const Ref<MutableDictionary> environment = processEnvironment();
    ::environ = before;
    EXPECT_EQ(environment->description(), "{ZED = 2; A = x=y; EMPTY = ; }");
}

} // namespace
} // namespace vnt
