// Loses and keeps objects of the C++ library, and says what: as leaktruth.cpp.
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#define NOINLINE __attribute__((noinline))

namespace {

const std::string kLong = "a text too long to be kept within the string's own object";

std::map<int, std::string> table;
std::unordered_map<std::string, std::vector<int>> index_;
thread_local std::list<std::string> names;
std::deque<std::unique_ptr<int>> queue;

NOINLINE void keep()
{
    for (int i = 0; i < 300; ++i) {
        table[i] = kLong + std::to_string(i);
        index_[std::to_string(i)] = std::vector<int>(10, i);
        names.push_back(kLong);
        queue.push_back(std::make_unique<int>(i));
    }
}

struct Peer {
    std::shared_ptr<Peer> other;
};

NOINLINE void loseObject() { (void)new std::string(kLong); } // the object, and its text

NOINLINE void loseMap()
{
    auto* lost = new std::map<int, std::string>;
    for (int i = 0; i < 20; ++i)
        (*lost)[i] = kLong;
}

NOINLINE void losePeers()
{
    auto a = std::make_shared<Peer>();
    auto b = std::make_shared<Peer>();
    a->other = b;
    b->other = a;
}

NOINLINE void loseArray() // its count stands in front
{
    auto* lost = new std::unique_ptr<int>[7];
    asm volatile("" : "+r"(lost)::"memory");
}

NOINLINE void scrub()
{
    volatile char space[65536];
    for (char volatile& byte : space)
        byte = 0;
    asm volatile("pxor %%xmm0, %%xmm0\n pxor %%xmm1, %%xmm1\n pxor %%xmm2, %%xmm2" ::: "xmm0", "xmm1", "xmm2");
}

} // namespace

int main()
{
    keep();
    for (const auto lose : {loseObject, loseMap, losePeers, loseArray}) {
        lose();
        scrub();
    }
    // The nodes of a map point back to it, so that they are a cycle together; their texts are held.
    std::printf("total: %d\n", 2 + (1 + 20 + 20) + 2 + 1);
    std::printf("direct: %d\n", 1 + 1);
    std::printf("cycle: %d\n", 1 + 20 + 2);
    std::fflush(stdout);
    std::exit(0);
}
