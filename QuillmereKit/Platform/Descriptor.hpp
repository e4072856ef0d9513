#pragma once

#include <system_error>
#include <utility>

namespace quillmere {

/// An open file descriptor that closes itself. Movable, not copyable; each has one owner.
class Descriptor {
public:
    Descriptor() noexcept = default;
    /// Takes over an open descriptor; a negative number is none.
    explicit Descriptor(int number) noexcept : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor();

    /// The number for system calls; -1 if nothing is open.
    [[nodiscard]] int number() const noexcept { return number_; }
    /// Whether a descriptor is held.
    [[nodiscard]] bool isOpen() const noexcept { return number_ >= 0; }

    /// Gives the descriptor away without closing it.
    [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }

    /// Closes now and says what closing said: a file system may report a failed write only here.
    std::error_code close() noexcept;

private:
    int number_ = -1;
};

}  // namespace quillmere
