/* The program that docs/tutorial.md looks at. It counts words, badly in three ways:
 *     tutorial_program [SECONDS]      (default 5)
 * hashWord() takes most of its time, rememberWord() forgets to free what it replaces, and one of its two threads waits for
 * the other in waitForTurn(). The functions stay apart so that a profile shows them as they stand here.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define APART __attribute__((noinline))

enum { kWords = 64, kWordBytes = 480, kRoundsOfHash = 400 };

static pthread_mutex_t turn = PTHREAD_MUTEX_INITIALIZER;
static char *remembered[kWords];
static volatile unsigned long total; /* so that no compiler leaves the work out */
static volatile int over;

APART unsigned long hashWord(const char *word)
{
    unsigned long hash = 5381;
    for (int round = 0; round < kRoundsOfHash; ++round) {
        for (const char *at = word; *at; ++at)
            hash = hash * 33 + (unsigned char)*at;
    }
    return hash;
}

/* What stood there before is never freed. */
APART void rememberWord(int slot, const char *word)
{
    char *copy = malloc(kWordBytes);
    if (!copy)
        return;
    snprintf(copy, kWordBytes, "%s", word);
    remembered[slot] = copy;
}

APART void waitForTurn(void) { pthread_mutex_lock(&turn); }

APART void saveSlowly(void)
{
    usleep(20000); /* as a disk or a server would, with the lock held */
}

static void *saver(void *unused)
{
    while (!over) {
        pthread_mutex_lock(&turn);
        saveSlowly();
        pthread_mutex_unlock(&turn);
        usleep(5000); /* else the other thread would hardly ever get its turn */
    }
    return unused;
}

APART static void countWords(int round)
{
    char word[32];
    for (int i = 0; i < kWords; ++i) {
        snprintf(word, sizeof word, "word%d-%d", round, i);
        total += hashWord(word);
        rememberWord(i, word);
    }
}

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? strtod(argv[1], NULL) : 5;
    struct timespec start, now;
    pthread_t thread;

    clock_gettime(CLOCK_MONOTONIC, &start);
    if (pthread_create(&thread, NULL, saver, NULL) != 0)
        return 1;
    for (int round = 0;; ++round) {
        for (int i = 0; i < 40; ++i)
            countWords(round * 40 + i);
        waitForTurn();
        pthread_mutex_unlock(&turn);
        clock_gettime(CLOCK_MONOTONIC, &now);
        if ((double)(now.tv_sec - start.tv_sec) + (double)(now.tv_nsec - start.tv_nsec) / 1e9 >= seconds)
            break;
    }
    over = 1;
    pthread_join(thread, NULL);
    printf("words: %lu\n", total);
    return 0;
}
