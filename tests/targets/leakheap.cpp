// A large heap: BLOCKS blocks of 177 bytes in the mean, held as a tree in an order that is none of their addresses',
// but for LOST of them. Says how many bytes it asked for; "leakheap BLOCKS LOST exit" ends then, else it waits.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct Node {
    Node* left;
    Node* right;
};

Node* root;

static uint64_t next(uint64_t& state)
{
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

int main(int argc, char** argv)
{
    const uint64_t blocks = argc > 1 ? strtoull(argv[1], nullptr, 10) : 1000000;
    const uint64_t lost = argc > 2 ? strtoull(argv[2], nullptr, 10) : 10000;
    uint64_t state = 88172645463325252U;
    uint64_t bytes = 0;
    auto** nodes = static_cast<Node**>(malloc(blocks * sizeof(Node*)));
    for (uint64_t i = 0; i < blocks; ++i) {
        const size_t size = 32 + next(state) % 291;
        nodes[i] = static_cast<Node*>(malloc(size));
        memset(static_cast<void*>(nodes[i]), 0x2a, size);
        bytes += size;
    }
    for (uint64_t i = blocks - 1; i > 0; --i) {
        const uint64_t other = next(state) % (i + 1);
        Node* one = nodes[i];
        nodes[i] = nodes[other];
        nodes[other] = one;
    }
    const uint64_t held = blocks - lost; // the others are as they were made: nothing points to them
    for (uint64_t i = 0; i < held; ++i) {
        nodes[i]->left = 2 * i + 1 < held ? nodes[2 * i + 1] : nullptr;
        nodes[i]->right = 2 * i + 2 < held ? nodes[2 * i + 2] : nullptr;
    }
    root = nodes[0];
    memset(static_cast<void*>(nodes), 0, blocks * sizeof(Node*));
    free(nodes);
    printf("bytes: %llu\nready\n", static_cast<unsigned long long>(bytes));
    fflush(stdout);
    while (argc < 4)
        usleep(10000);
    return 0;
}
