// The queue, in the order of arrival, and the one child that is at work. It gets the clear text by being a
// copy of this process and ends by its own alarm if it hangs. Who waits is a session each, so their number
// bounds the queue; their patience is the session's.
#include "suite/terminal/password.h"

#include <sys/random.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

#ifdef ESMC_HAVE_CRYPT
#include <crypt.h>
#endif

#include "suite/base/memory.h"
#include "suite/base/overwrite.h"
#include "suite/loop/thread.h"
#include "suite/process/job.h"

namespace {

constexpr std::uint32_t CHILD_LIMIT_S = 30;
// Behind a child that was cancelled, which ends meanwhile: who comes and goes quickly does not make one child
// after the other.
constexpr std::uint32_t REST_MS = 20;

struct request {
    request* next;
    lib_globals* ctx;
    password_done done;
    void* owner;
    const char* setting;  // null: a command's
    char clear[PASSWORD_MAX + 1];
};

request* waiting;  // the first that came
request* at_work;
job* child;
thread* rest;  // until it is over no child is started
unsigned turns;

bool compute(const char* clear, const char* setting, char (&hash)[PASSWORD_HASH_SIZE]) {
#ifdef ESMC_HAVE_CRYPT
    static_assert(CRYPT_OUTPUT_SIZE <= PASSWORD_HASH_SIZE);
    static crypt_data data;  // 32 KiB
    char fresh[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!setting) {
        char salt[16];
        if (getrandom(salt, sizeof salt, 0) != sizeof salt) return false;
        setting = crypt_gensalt_rn("$y$", 0, salt, sizeof salt, fresh, sizeof fresh);
        if (!setting) return false;
    }
    const char* result = crypt_rn(clear, setting, &data, sizeof data);
    bool good = result && result[0] != '*' && std::strlen(result) < sizeof hash;
    if (good) std::memcpy(hash, result, std::strlen(result) + 1);
    explicit_bzero(&data, sizeof data);
    return good;
#else
    (void)clear;
    (void)setting;
    (void)hash;
    return false;
#endif
}

int hash_in_child(const void* arg, int out) {
    const auto* r = static_cast<const request*>(arg);
    char hash[PASSWORD_HASH_SIZE];
    if (!compute(r->clear, r->setting, hash)) return 1;
    return write_all(out, hash) == 0 ? 0 : 1;
}

// Where it hangs; null: the end.
request** place_of(const request* wanted) {
    request** at = &waiting;
    while (*at != wanted) at = &(*at)->next;
    return at;
}

// The first or last one of a kind; null when there is none.
request* find(bool login, bool last) {
    request* found = nullptr;
    for (request* r = waiting; r && (last || !found); r = r->next)
        if ((r->setting != nullptr) == login) found = r;
    return found;
}

// The queue is not empty: of three turns on end one finds somebody.
request* take_next() {
    request* r = nullptr;
    while (!r) {
        const unsigned turn = turns++ % 3;
        r = find(turn != 0, turn == 1);
    }
    *place_of(r) = r->next;
    return r;
}

void drop(request* r) {
    memmgr_free(r, MTYPE_HOST);
}

void run_next();

void on_hash(lib_globals* ctx, void* arg, int status, std::string_view result) {
    auto* r = static_cast<request*>(arg);
    at_work = nullptr;
    child = nullptr;
    char hash[PASSWORD_HASH_SIZE] = {};
    const bool good = status == 0 && !result.empty();
    if (good) std::memcpy(hash, result.data(), result.size());
    r->done(ctx, r->owner, good ? hash : nullptr);
    explicit_bzero(hash, sizeof hash);
    drop(r);
    run_next();
}

bool begin(request* r) {
    child =
        job_start(r->ctx, {hash_in_child, r, nullptr, 0, PASSWORD_HASH_SIZE - 1, CHILD_LIMIT_S, on_hash, r});
    if (child) at_work = r;
    return child != nullptr;
}

// Who can't be served is told so, and the next one tried.
void run_next() {
    while (waiting && !at_work && !rest) {
        request* r = take_next();
        if (begin(r)) return;
        r->done(r->ctx, r->owner, nullptr);
        drop(r);
    }
}

int rested(thread*) {
    rest = nullptr;
    run_next();
    return 0;
}

}  // namespace

bool password_start(lib_globals* ctx, std::string_view clear, const char* setting, password_done done,
                    void* owner) {
    if (clear.size() > PASSWORD_MAX || !password_supported()) return false;
    auto* r = static_cast<request*>(memmgr_calloc(sizeof(request), MTYPE_HOST));
    if (!r) return false;
    r->ctx = ctx;
    r->done = done;
    r->owner = owner;
    r->setting = setting;
    std::memcpy(r->clear, clear.data(), clear.size());
    if (!at_work && !rest && !waiting) {
        if (begin(r)) return true;
        drop(r);
        return false;
    }
    *place_of(nullptr) = r;
    return true;
}

void password_cancel(const void* owner) {
    request* r = waiting;
    while (r && r->owner != owner) r = r->next;
    if (r) {
        *place_of(r) = r->next;
        drop(r);
    } else if (at_work && at_work->owner == owner) {
        lib_globals* const ctx = at_work->ctx;
        job_cancel(child);
        drop(at_work);
        at_work = nullptr;
        child = nullptr;
        rest = thread_add_timer_msec(ctx, rested, nullptr, REST_MS);
        run_next();  // at once only when there is no memory for a timer
    }
}

void password_stop() {
    thread_cancel(rest);
    rest = nullptr;
}

bool password_hash_now(std::string_view clear, char (&hash)[PASSWORD_HASH_SIZE]) {
    char text[PASSWORD_MAX + 1] = {};
    if (clear.size() > PASSWORD_MAX) return false;
    std::memcpy(text, clear.data(), clear.size());
    bool good = compute(text, nullptr, hash);
    explicit_bzero(text, sizeof text);
    return good;
}

bool password_is_hash(std::string_view text) {
    if (text.size() < 13 || text.size() >= PASSWORD_HASH_SIZE || text[0] != '$') return false;
    return text.find_first_not_of("./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz$,=+-_") ==
           std::string_view::npos;
}

bool password_supported() {
#ifdef ESMC_HAVE_CRYPT
    return true;
#else
    return false;
#endif
}
