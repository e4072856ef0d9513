#include "Tests/Support/RefusedMemory.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "Tests/Support/Sanitizer.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define QUILLMERE_FOREIGN_MALLOC
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUILLMERE_FOREIGN_MALLOC
#endif
#endif

#ifndef QUILLMERE_FOREIGN_MALLOC
extern "C" {
// The C library's functions under names that stay theirs.
void* __libc_malloc(std::size_t size);                           // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT
void* __libc_realloc(void* bytes, std::size_t size);             // NOLINT
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT
void __libc_free(void* bytes);                                   // NOLINT
}
#endif

namespace quillmere::test {
namespace {

/// The requests of one source.
struct Requests {
    std::atomic<long> untilRefused = -1;  // how many from now one is refused; negative for none
    std::atomic<bool> isOut = false;      // all are
    std::atomic<long> live = 0;
};

Requests ofCpp;
Requests ofC;
std::atomic<bool> persists = false;
std::atomic<bool> wasAnyRefused = false;

bool isRefused(Requests& requests) noexcept {
    if (!requests.isOut.load(std::memory_order_relaxed)) {
        if (requests.untilRefused.load(std::memory_order_relaxed) < 0 || requests.untilRefused-- != 0) return false;
        requests.isOut = persists.load();
    }
    wasAnyRefused = true;

    return true;
}

#ifdef QUILLMERE_FOREIGN_MALLOC
void* taken(std::size_t alignment, std::size_t size) noexcept {
    if (alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) return std::malloc(size);
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}
void released(void* bytes) noexcept { std::free(bytes); }
#else
void* taken(std::size_t alignment, std::size_t size) noexcept {
    if (alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) return __libc_malloc(size);
    return __libc_memalign(alignment, size);
}
void released(void* bytes) noexcept { __libc_free(bytes); }
#endif

void* allocatedOrNull(std::size_t size, std::size_t alignment) noexcept {
    if (isRefused(ofCpp)) return nullptr;
    void* const bytes = taken(alignment, std::max<std::size_t>(size, 1));
    if (bytes != nullptr) ++ofCpp.live;
    return bytes;
}

void* allocated(std::size_t size, std::size_t alignment) {
    void* const bytes = allocatedOrNull(size, alignment);
    if (bytes == nullptr) throw std::bad_alloc();
    return bytes;
}

void giveBack(void* bytes) noexcept {
    if (bytes == nullptr) return;
    --ofCpp.live;
    released(bytes);
}

constexpr std::size_t plain = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
constexpr std::size_t number(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

RefusedMemory::RefusedMemory(Plan plan) {
    wasAnyRefused = false;
    persists = plan.persists;
    (plan.source == Source::cpp ? ofCpp : ofC).untilRefused = plan.refused;
}

void RefusedMemory::end() noexcept {
    for (auto* requests : {&ofCpp, &ofC}) {
        requests->untilRefused = -1;
        requests->isOut = false;
    }
}

bool RefusedMemory::wasRefused() noexcept { return wasAnyRefused; }

long RefusedMemory::live(Source source) noexcept { return source == Source::cpp ? ofCpp.live : ofC.live; }

}  // namespace quillmere::test

namespace memory = quillmere::test;

void* operator new(std::size_t size) { return memory::allocated(size, memory::plain); }
void* operator new[](std::size_t size) { return memory::allocated(size, memory::plain); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return memory::allocatedOrNull(size, memory::plain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return memory::allocatedOrNull(size, memory::plain);
}
void* operator new(std::size_t size, std::align_val_t at) { return memory::allocated(size, memory::number(at)); }
void* operator new[](std::size_t size, std::align_val_t at) { return memory::allocated(size, memory::number(at)); }
void* operator new(std::size_t size, std::align_val_t at, const std::nothrow_t&) noexcept {
    return memory::allocatedOrNull(size, memory::number(at));
}
void* operator new[](std::size_t size, std::align_val_t at, const std::nothrow_t&) noexcept {
    return memory::allocatedOrNull(size, memory::number(at));
}
void operator delete(void* bytes) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes) noexcept { memory::giveBack(bytes); }
void operator delete(void* bytes, const std::nothrow_t&) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes, const std::nothrow_t&) noexcept { memory::giveBack(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes, std::size_t) noexcept { memory::giveBack(bytes); }
void operator delete(void* bytes, std::align_val_t) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes, std::align_val_t) noexcept { memory::giveBack(bytes); }
void operator delete(void* bytes, std::align_val_t, const std::nothrow_t&) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes, std::align_val_t, const std::nothrow_t&) noexcept { memory::giveBack(bytes); }
void operator delete(void* bytes, std::size_t, std::align_val_t) noexcept { memory::giveBack(bytes); }
void operator delete[](void* bytes, std::size_t, std::align_val_t) noexcept { memory::giveBack(bytes); }

#ifndef QUILLMERE_FOREIGN_MALLOC
namespace quillmere::test {
namespace {

/// What `take` gives, unless it is refused.
template <class Take>
void* givenToC(const Take& take) noexcept {
    if (isRefused(ofC)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const bytes = take();
    if (bytes != nullptr) ++ofC.live;
    return bytes;
}

}  // namespace
}  // namespace quillmere::test

extern "C" {

void* malloc(std::size_t size) noexcept {
    return memory::givenToC([=] { return __libc_malloc(size); });
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return memory::givenToC([=] { return __libc_calloc(count, size); });
}

void* realloc(void* bytes, std::size_t size) noexcept {
    if (bytes == nullptr) return malloc(size);
    if (size == 0) {
        free(bytes);
        return nullptr;
    }
    if (memory::isRefused(memory::ofC)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(bytes, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return memory::givenToC([=] { return __libc_memalign(alignment, size); });
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept { return memalign(alignment, size); }

int posix_memalign(void** bytes, std::size_t alignment, std::size_t size) noexcept {
    const int error = errno;
    void* const given = memalign(alignment, size);
    errno = error;
    if (given == nullptr) return ENOMEM;
    *bytes = given;
    return 0;
}

void free(void* bytes) noexcept {
    if (bytes == nullptr) return;
    --memory::ofC.live;
    __libc_free(bytes);
}

}  // extern "C"
#endif
