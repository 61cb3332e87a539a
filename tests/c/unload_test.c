/* Loads and unloads the library again and again, as plug-ins of a host do.
 *
 *   unload_test LIBRARY [ROUNDS]    10000 rounds by default
 *
 * Each round loads it, uses it and unloads it; in some rounds several threads do so at once. After a while neither the
 * address space nor the number of mappings may change any more, and memory stays as it is. The library is never
 * unmapped, on purpose: a function found in the first round works after the last dlclose(). Every failure is printed
 * with its round. */
#define _POSIX_C_SOURCE 200809L

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tallowin/tallowin.h"

/* Memory of a destroyed object is used again after 1024 further ones, so the library has what it needs after the
 * warm-up. */
enum { kWarmUp = 3000, kThreads = 4, kThreadedEvery = 100 };

/* What may differ in the end, however many rounds there were: pages that the C library touches now and then. */
static long const kSlackKib = 512;

static char const* library;
static pthread_barrier_t together; /* all threads have stacks of their own before the first ends */

typedef KVX_HANDLE (*CreateFunction)(void);
typedef int32_t (*TextFunction)(KVX_HANDLE, char const*);
typedef void (*DestroyFunction)(KVX_HANDLE);
typedef char const* (*VersionFunction)(void);

static void fail(long round, char const* format, ...) {
    va_list values;
    va_start(values, format);
    fprintf(stderr, "round %ld: ", round);
    vfprintf(stderr, format, values);
    fputc('\n', stderr);
    va_end(values);
    exit(EXIT_FAILURE);
}

/* The address of a function. ISO C has no conversion for it, POSIX wants it to work. */
static void find(void* loaded, char const* name, void* function, long round) {
    void* const address = dlsym(loaded, name);
    if (address == NULL) {
        fail(round, "%s is not found: %s", name, dlerror());
    }
    memcpy(function, &address, sizeof address);
}

static VersionFunction useOnce(long round) {
    CreateFunction create;
    TextFunction fromString;
    DestroyFunction destroy;
    VersionFunction version;
    KVX_HANDLE message;
    void* const loaded = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (loaded == NULL) {
        fail(round, "dlopen: %s", dlerror());
    }
    find(loaded, "CreateMessageObject", &create, round);
    find(loaded, "MessageObject_FromString", &fromString, round);
    find(loaded, "DestroyMessageObject", &destroy, round);
    find(loaded, "KVX_GetVersion", &version, round);
    message = create();
    if (message == NULL) {
        fail(round, "CreateMessageObject returns null");
    }
    if (fromString(message, "<KVX MSGTYPE=\"PayInit\"><A B=\"1\"/></KVX>") != KVX_OK) {
        fail(round, "MessageObject_FromString fails");
    }
    destroy(message);
    if (dlclose(loaded) != 0) {
        fail(round, "dlclose: %s", dlerror());
    }
    return version;
}

static void* useInThread(void* round) {
    pthread_barrier_wait(&together);
    (void)useOnce(*(long const*)round);
    return NULL;
}

static void useInThreads(long round) {
    pthread_t threads[kThreads];
    int i;
    for (i = 0; i < kThreads; ++i) {
        if (pthread_create(&threads[i], NULL, useInThread, &round) != 0) {
            fail(round, "pthread_create fails");
        }
    }
    for (i = 0; i < kThreads; ++i) {
        pthread_join(threads[i], NULL);
    }
}

typedef struct {
    long m_Address;  /* KiB of address space */
    long m_Resident; /* KiB in memory */
    long m_Mappings; /* lines of /proc/self/maps */
} Memory;

static Memory measure(long round) {
    Memory memory = {0, 0, 0};
    char line[512];
    FILE* file = fopen("/proc/self/statm", "r");
    if (file == NULL || fscanf(file, "%ld %ld", &memory.m_Address, &memory.m_Resident) != 2) {
        fail(round, "/proc/self/statm cannot be read");
    }
    fclose(file);
    memory.m_Address *= sysconf(_SC_PAGESIZE) / 1024;
    memory.m_Resident *= sysconf(_SC_PAGESIZE) / 1024;
    file = fopen("/proc/self/maps", "r");
    if (file == NULL) {
        fail(round, "/proc/self/maps cannot be read");
    }
    while (fgets(line, sizeof line, file) != NULL) {
        memory.m_Mappings += strchr(line, '\n') != NULL;
    }
    fclose(file);
    return memory;
}

int main(int argc, char** argv) {
    Memory before = {0, 0, 0};
    Memory after;
    VersionFunction version = NULL;
    long rounds;
    long round;
    if (argc < 2) {
        fprintf(stderr, "usage: unload_test LIBRARY [ROUNDS]\n");
        return 2;
    }
    library = argv[1];
    mallopt(M_ARENA_MAX, 1); /* or else each thread may get address space of its own at any time */
    pthread_barrier_init(&together, NULL, kThreads);
    rounds = argc > 2 ? strtol(argv[2], NULL, 10) : 10000;
    for (round = 0; round < kWarmUp + rounds; ++round) {
        VersionFunction const found = useOnce(round);
        if (version == NULL) {
            version = found;
        } else if (found != version) {
            fail(round, "the library is in another place");
        }
        if (round % kThreadedEvery == 0) {
            useInThreads(round);
        }
        if (round + 1 == kWarmUp) {
            before = measure(round);
        }
    }
    after = measure(round);
    printf("%ld rounds; address space %ld KiB, then %ld; in memory %ld KiB, then %ld; mappings %ld, then %ld\n", rounds,
           before.m_Address, after.m_Address, before.m_Resident, after.m_Resident, before.m_Mappings, after.m_Mappings);
    if (after.m_Address != before.m_Address) {
        fail(round, "the address space has grown by %ld KiB", after.m_Address - before.m_Address);
    }
    if (after.m_Mappings != before.m_Mappings) {
        fail(round, "there are %ld mappings more", after.m_Mappings - before.m_Mappings);
    }
    if (after.m_Resident > before.m_Resident + kSlackKib) {
        fail(round, "memory has grown by %ld KiB", after.m_Resident - before.m_Resident);
    }
    if (strcmp(version(), TALLOWIN_VERSION_STRING) != 0) {
        fail(round, "KVX_GetVersion of the first round does not work after the last dlclose");
    }
    return 0;
}
