/*
 * kmio-exit-mid-stream LOCATOR [OPTIONS [end-callback-threads]]: a host
 * program that ends while a device is receiving. It opens the device, keeps
 * sending from a second thread (an echoing peer turns that into data
 * arriving), waits until 64 KiB have come back, prints "streaming" and
 * returns from main with the device still open, the sender still sending
 * and bytes still arriving.
 *
 * With end-callback-threads it also behaves like an interpreter that has
 * shut down before the process exits (Python through ctypes does this): a
 * thread that calls back into it once the program is exiting is ended there
 * and then (pthread_exit). The exit handler waits for that to happen before
 * the process goes on to unload the library's state.
 *
 * Exit codes: 0 when the process ended normally, 2 for bad arguments, 3 when
 * the open failed, 4 when no data arrived. A library that tears its state
 * down under running threads kills the process with a signal instead.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kmio/kmio.h"

static unsigned long received;
static uint32_t handle;
static int endCallbackThreads;
static int exiting;
static int callbackThreadEnded;

static void pause_ms(long ms) {
    struct timespec delay;
    delay.tv_sec = ms / 1000;
    delay.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&delay, NULL);
}

static void onReceive(void *context, const uint8_t *data, size_t length) {
    (void)context;
    (void)data;
    __atomic_add_fetch(&received, length, __ATOMIC_RELAXED);
    if (endCallbackThreads && __atomic_load_n(&exiting, __ATOMIC_ACQUIRE)) {
        __atomic_store_n(&callbackThreadEnded, 1, __ATOMIC_RELEASE);
        pthread_exit(NULL);
    }
}

/* Runs before the library's own exit-time work: it was registered later. */
static void onExit(void) {
    int waited;
    __atomic_store_n(&exiting, 1, __ATOMIC_RELEASE);
    if (!endCallbackThreads) {
        return;
    }
    for (waited = 0; !__atomic_load_n(&callbackThreadEnded, __ATOMIC_ACQUIRE) && waited < 5000; ++waited) {
        pause_ms(1);
    }
    pause_ms(50); /* let the ended thread finish unwinding */
}

static void *sendForever(void *unused) {
    static const char block[512] = "0123456789";
    (void)unused;
    for (;;) {
        KM_IO_Send(handle, block, sizeof block);
        pause_ms(1);
    }
    return NULL;
}

int main(int argc, char **argv) {
    pthread_t sender;
    int waited;
    if (argc < 2 || argc > 4 || (argc == 4 && strcmp(argv[3], "end-callback-threads") != 0)) {
        fprintf(stderr, "usage: kmio-exit-mid-stream LOCATOR [OPTIONS [end-callback-threads]]\n");
        return 2;
    }
    endCallbackThreads = argc == 4;
    if (KM_IO_Open(&handle, argv[1], argc >= 3 ? argv[2] : "", NULL, onReceive, NULL) != KM_IO_OK) {
        fprintf(stderr, "could not open %s\n", argv[1]);
        return 3;
    }
    if (pthread_create(&sender, NULL, sendForever, NULL) != 0) {
        return 3;
    }
    pthread_detach(sender);
    for (waited = 0; __atomic_load_n(&received, __ATOMIC_RELAXED) < 65536; ++waited) {
        if (waited == 20000) {
            fprintf(stderr, "no data arrived\n");
            return 4;
        }
        pause_ms(1);
    }
    atexit(onExit);
    printf("streaming\n");
    fflush(stdout);
    return 0;
}
