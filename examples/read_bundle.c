/* What a bundle holds, in C: its instruments, how many records of each kind they have, and where the first of the stacks
 * were.
 *     read_bundle BUNDLE
 * Build: cc read_bundle.c -lVantoraBundle
 */
#include <Vantora/Bundle.h>

#include <inttypes.h>
#include <stdio.h>

enum { MAX_KIND = 32, SHOWN_STACKS = 3, MAX_FRAMES = 16 };

struct reading {
    vnt_bundle *bundle;
    size_t instrument;
    uint64_t by_kind[MAX_KIND];
    uint64_t last_ns;
    int ordered;
    int shown;
};

static void print_stack(struct reading *reading, const vnt_bundle_record *record)
{
    vnt_bundle_frame frames[MAX_FRAMES];
    size_t i, j;

    printf("  %" PRIu64 " ns, thread %s\n", record->time_ns, record->thread);
    for (i = 0; i < record->stack_count; ++i) {
        size_t count = vnt_bundle_symbolize(reading->bundle, reading->instrument, record->pid, record->stack[i],
                                            record->time_ns, vnt_bundle_is_return(record, i), frames, MAX_FRAMES);
        for (j = 0; j < count && j < MAX_FRAMES; ++j)
            printf("    %s%s %s:%" PRIu32 "\n", frames[j].function, frames[j].is_inlined ? " (inlined)" : "",
                   frames[j].file, frames[j].line);
    }
}

static int on_record(const vnt_bundle_record *record, void *context)
{
    struct reading *reading = context;

    if (record->kind < MAX_KIND)
        ++reading->by_kind[record->kind];
    if (record->time_ns < reading->last_ns)
        reading->ordered = 0;
    reading->last_ns = record->time_ns;
    if (record->stack_count != 0 && reading->shown < SHOWN_STACKS) {
        ++reading->shown;
        print_stack(reading, record);
    }
    return 1; /* go on */
}

int main(int argc, char **argv)
{
    char error[256];
    vnt_bundle *bundle;
    size_t i, count;
    int kind;

    if (argc != 2) {
        fprintf(stderr, "usage: read_bundle BUNDLE\n");
        return 2;
    }
    bundle = vnt_bundle_open(argv[1], error, sizeof error);
    if (!bundle) {
        fprintf(stderr, "read_bundle: %s\n", error);
        return 1;
    }
    count = vnt_bundle_instrument_count(bundle);
    for (i = 0; i < count; ++i) {
        struct reading reading = {0};
        vnt_bundle_info info = {0};
        vnt_bundle_totals totals = {0};

        reading.bundle = bundle;
        reading.instrument = i;
        reading.ordered = 1;
        info.size = sizeof info;
        totals.size = sizeof totals;
        if (vnt_bundle_instrument_info(bundle, i, &info) != 0)
            continue;
        printf("%s, target %" PRId32 "\n", info.name, info.pid);
        if (vnt_bundle_read(bundle, i, on_record, &reading, &totals) != 0)
            continue;
        printf("  %" PRIu64 " records, %s\n", totals.records, reading.ordered ? "in order" : "not all in order");
        for (kind = 0; kind < MAX_KIND; ++kind) {
            if (reading.by_kind[kind] != 0)
                printf("  kind %d: %" PRIu64 "\n", kind, reading.by_kind[kind]);
        }
    }
    for (i = 0; i < vnt_bundle_remark_count(bundle); ++i)
        fprintf(stderr, "read_bundle: %s\n", vnt_bundle_remark(bundle, i));
    vnt_bundle_close(bundle);
    return 0;
}
