// Server threads: a thread for each buffer that performs its transfers while the caller goes on. Buffer and thread
// belong together from the buffer's allocation to its end; the buffer's transfer is the request, and there is no queue.
//
// Who owns the transfer. The caller posts `go` to hand it over; from then on until `done` is posted it is the thread's,
// which touches nothing else. Whoever waits for `done` runs the completion. A thread that cannot wait for work any more
// ends; what was handed to it is performed by whoever waits for it.
#include "io/io.h"
#include "util/errors.h"
#include "util/process.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

struct buffer_server {
    sem_t go, done;
    pthread_t thread;
    vfs_transfer *transfer; // the buffer's
    uint32_t generation;    // of the process that has the thread
    bool queued;            // through the kernel's queue; set before each hand-over
    bool debug;
    std::atomic<bool> stop;
    std::atomic<bool> ended;     // the thread takes no more work
    std::atomic<bool> performed; // what was handed over last has been done
};

namespace {

constexpr size_t stack_bytes = 65536;

void pause_briefly()
{
    const timespec rest{.tv_sec = 0, .tv_nsec = 1'000'000};
    nanosleep(&rest, nullptr);
}

// Takes one post, which has been made or will be: 0, or -1 with errno after a line on standard error. `place` tells
// the lines apart.
int take_post(sem_t *semaphore, const char *place)
{
    int result;
    do result = sem_trywait(semaphore);
    while (result == -1 && errno == EINTR);
    if (result == 0) return 0;
    const char *call = "sem_trywait";
    if (errno == EAGAIN) {
        call = "sem_wait";
        do result = sem_wait(semaphore);
        while (result == -1 && (errno == EINTR || errno == EAGAIN || errno == ETIMEDOUT));
        if (result == 0) return 0;
    }
    const int error = errno;
    fprintf(stderr, "%s failed %s %d %s\n", call, place, error, strerror(error));
    return fail(error);
}

// Until it succeeds: somebody waits for it.
void post_done(buffer_server *server, int place)
{
    while (sem_post(&server->done) == -1) {
        fprintf(stderr, "sem_post %d fail %d %s\n", place, errno, strerror(errno));
        place = 3;
        pause_briefly();
    }
}

void perform(const buffer_server *server)
{
    vfs_transfer *transfer = server->transfer;
    if (!server->queued) return transfer_perform(transfer);
    transfer_perform_queued(transfer);
    if (transfer->error != 0 && server->debug)
        fprintf(stderr, "Thread AIO error %d %s\n", transfer->error, strerror(transfer->error));
}

void *serve(void *argument)
{
    auto *server = static_cast<buffer_server *>(argument);
    post_done(server, 2);
    while (take_post(&server->go, "1") == 0 && !server->stop.load(std::memory_order_acquire)) {
        perform(server);
        server->performed.store(true, std::memory_order_release);
        post_done(server, 3);
    }
    server->ended.store(true, std::memory_order_release);
    post_done(server, 1);
    return nullptr;
}

// Signals are for the host's threads: they are blocked before the thread begins.
int create_thread(buffer_server *server, const pthread_attr_t *attributes)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&server->thread, attributes, serve, server);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

int launch(buffer_server *server)
{
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error == 0) {
        pthread_attr_setstacksize(&attributes, stack_bytes);
        pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
        error = create_thread(server, &attributes);
        if (error == EINVAL) error = create_thread(server, nullptr); // a host with much thread-local storage
        pthread_attr_destroy(&attributes);
    }
    if (error == 0) return 0;
    if (error == ENOMEM)
        fprintf(stderr, "pthread_create failed %d.  `ulimit -d`\n", error);
    else
        fprintf(stderr, "pthread_create failed %d %s\n", error, strerror(error));
    return -1;
}

void end_thread(buffer_server *server)
{
    server->stop.store(true, std::memory_order_release);
    for (int result = -1; (result = sem_post(&server->go)) == -1; pause_briefly())
        fprintf(stderr, "sem_post(sio) failed %d\n", result);
    pthread_join(server->thread, nullptr);
}

// Returns when the thread runs: 0; -1 when there is none.
int begin_thread(buffer_server *server)
{
    if (sem_init(&server->go, 0, 0) == -1 || sem_init(&server->done, 0, 0) == -1) return -1;
    if (launch(server) == -1) return -1;
    if (take_post(&server->done, "2") == 0) return 0;
    end_thread(server);
    return -1;
}

void destroy(buffer_server *server)
{
    sem_destroy(&server->go);
    sem_destroy(&server->done);
    server->~buffer_server();
    std::free(server);
}

// No post may be left of a transfer before.
int drain_done(buffer_server *server, const char *place)
{
    for (;;) {
        if (sem_trywait(&server->done) == 0 || errno == EINTR) continue;
        if (errno == EAGAIN) return 0;
        const int error = errno;
        fprintf(stderr, "sem_trywait failed %s %d %s\n", place, error, strerror(error));
        return fail(error);
    }
}

// Hands the transfer over: 1, 0 when the thread has ended, or -1 with errno.
int thread_post(buffer_server *server)
{
    if (drain_done(server, server->transfer->operation == transfer_read ? "4" : "5") == -1) return -1;
    if (server->ended.load(std::memory_order_acquire)) return 0; // if it ends from now on, its last post is seen
    server->performed.store(false, std::memory_order_relaxed);
    if (sem_post(&server->go) == 0) return 1;
    const int error = errno;
    fprintf(stderr, "thread_post/sem_post fail %d %s\n", error, strerror(error));
    return fail(error);
}

bool server_engine_start(vfs_buffer *buffer)
{
    buffer_server *server = buffer->server;
    server->queued = (buffer->engine & engine_aio) != 0;
    const int handed_over = thread_post(server);
    if (handed_over == 1) return true;
    if (handed_over == -1)
        buffer->transfer.error = errno;
    else
        transfer_perform(&buffer->transfer);
    return false;
}

bool server_engine_ended(vfs_buffer *buffer)
{
    const buffer_server *server = buffer->server;
    return server->performed.load(std::memory_order_acquire) || server->ended.load(std::memory_order_acquire);
}

void server_engine_wait(vfs_buffer *buffer)
{
    buffer_server *server = buffer->server;
    int error = take_post(&server->done, "7") == -1 ? errno : 0;
    while (error != 0 && !server_engine_ended(buffer)) pause_briefly(); // the area is the thread's until then
    if (!server->performed.load(std::memory_order_acquire)) {
        transfer_perform(&buffer->transfer); // the thread ended without having taken it
        error = 0;
    }
    if (buffer->transfer.error == 0) buffer->transfer.error = error;
}

} // namespace

void server_start(vfs_buffer *buffer)
{
    assert(buffer->server == nullptr);
    void *memory = std::calloc(1, sizeof(buffer_server));
    if (memory == nullptr) return;
    auto *server = new (memory) buffer_server{};
    server->transfer = &buffer->transfer;
    server->generation = process_generation();
    server->debug = buffer->file->debug;
    if (begin_thread(server) == 0)
        buffer->server = server;
    else
        destroy(server);
}

void server_stop(vfs_buffer *buffer)
{
    buffer_server *server = buffer->server;
    if (server == nullptr) return;
    assert(buffer->done != 0);
    buffer->server = nullptr;
    if (server->generation == process_generation()) end_thread(server);
    destroy(server);
}

const io_engine server_engine{
    .name = "thread", .start = server_engine_start, .ended = server_engine_ended, .wait = server_engine_wait};
