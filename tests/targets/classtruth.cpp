// Makes objects of C++ classes, of which it leaves numbers alive that it says, and ends.
//
//   classtruth           lines "class: NAME LIVE_BLOCKS BYTES"
//   classtruth attach    the same between two lines that it reads
//   classtruth leak      loses the last of each

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <vector>

#define OWN __attribute__((noinline, noclone))

namespace shapes {

class Shape {
public:
    virtual ~Shape();
    virtual int corners() const { return 0; }

private:
    int _state[4] = {};
};
Shape::~Shape() = default;

class Square : public Shape {
public:
    int corners() const override { return 4; }

private:
    double _side = 1;
};

/// Its first base has no virtual functions: the table's address stands first all the same.
struct Plain {
    int number = 7;
};
class Labelled : public Plain, public Square {
public:
    int corners() const override { return 5; }

private:
    char _label[32] = {};
};

class Virtual : public virtual Shape {
public:
    int corners() const override { return 6; }
};

template <typename T> class Box : public Shape {
public:
    int corners() const override { return 8; }

private:
    T _content{};
};

struct Counted {
    int numbers[10] = {};
};

} // namespace shapes

namespace {

class Hidden : public shapes::Shape {
    char _rest[100] = {};
};

std::vector<std::unique_ptr<shapes::Shape>>* alive;

void say(const char* text)
{
    if (::write(1, text, ::strlen(text)) < 0)
        ::_exit(9);
}

void say(const char* name, int blocks, size_t bytes)
{
    char line[160];
    ::snprintf(line, sizeof line, "class: %d %zu %s\n", blocks, bytes, name);
    say(line);
}

void waitForLine()
{
    char byte = 0;
    while (::read(0, &byte, 1) == 1 && byte != '\n') { }
}

/// Leaves `count` alive, makes and ends some more.
template <typename Class> void make(const char* name, int count)
{
    for (int i = 0; i < count; ++i)
        alive->push_back(std::make_unique<Class>());
    for (int i = 0; i < 20; ++i)
        delete new Class();
    say(name, count, count * sizeof(Class));
}

} // namespace

// For others to see, so that nothing of them is left out.
std::shared_ptr<shapes::Counted>* held;
const char** texts; ///< begins with the address of something in a module, but is no object

OWN void makeAll()
{
    alive = new std::vector<std::unique_ptr<shapes::Shape>>();
    alive->reserve(100);
    make<shapes::Shape>("shapes::Shape", 3);
    make<shapes::Square>("shapes::Square", 11);
    make<shapes::Labelled>("shapes::Labelled", 5);
    make<shapes::Virtual>("shapes::Virtual", 2);
    make<shapes::Box<int>>("shapes::Box<int>", 7);
    make<shapes::Box<long[9]>>("shapes::Box<long [9]>", 1);
    make<Hidden>("(anonymous namespace)::Hidden", 13);
    texts = new const char* [4] { "a text", "another", "text", "." };
    held = new std::shared_ptr<shapes::Counted>(std::make_shared<shapes::Counted>());
}

/// On a thread of its own, whose stack and registers go with it.
OWN void* makeAndLoseAll(void*)
{
    makeAll();
    alive = nullptr;
    return nullptr;
}

int main(int argc, char** argv)
{
    const bool isAttached = argc > 1 && ::strcmp(argv[1], "attach") == 0;
    if (isAttached) {
        say("ready\n");
        waitForLine();
    }
    pthread_t thread;
    if (argc <= 1 || ::strcmp(argv[1], "leak") != 0)
        makeAll();
    else if (::pthread_create(&thread, nullptr, makeAndLoseAll, nullptr) != 0 || ::pthread_join(thread, nullptr) != 0)
        return 8;
    if (isAttached) {
        say("done\n");
        waitForLine();
    }
    return 0;
}
