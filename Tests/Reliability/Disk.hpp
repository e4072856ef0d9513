#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Tests/Reliability/Tree.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {

/// A disk that can lose power: what is safe on it, and what was asked for and is only in the machine's memory.
///
/// It is as unkind as POSIX lets it be. A file's bytes are safe after its fsync, and a folder's names after the
/// folder's, not before, and neither brings the other. What is not safe may be there after the power cut or not, each
/// name and each write for itself, in whatever order they were asked for; a write may also be there in part, or as
/// zeros of its length. A sync that fails drops what it should have kept: it can still be read, but no later sync
/// brings it back. Three kindnesses: a rename within a folder happens whole or not at all, and one from folder to
/// folder never loses the file, which holds for all file systems in use; and no folder itself is dropped.
class Disk {
public:
    /// Everything in `tree`, seen from `root`, is safe, but for what stands in `unsynced`.
    Disk(std::filesystem::path root, const Tree& tree, const std::set<std::string>& unsynced);

    /// Takes in a call; those outside the root change nothing.
    void apply(const RecordedCall& call);

    /// How many names and writes are pending.
    [[nodiscard]] std::size_t pending() const { return pendingNames_.size() + pendingWrites_.size(); }

    /// Whether a file's bytes, as they are now, would survive; true where nothing of the root's is there.
    [[nodiscard]] bool areBytesSafe(const std::filesystem::path& path) const;

    /// What becomes of one of the pending changes.
    enum class Fate { lost, kept, torn, zeros };

    /// What is on the disk after a power cut now. `fate` is asked for each pending change, numbered in the order they
    /// were made; a name is kept unless it is lost.
    [[nodiscard]] Tree afterPowerCut(const std::function<Fate(std::size_t index, bool isName)>& fate) const;

    /// What nothing can take away: the disk after a power cut that lost all that was pending.
    [[nodiscard]] Tree safeTree() const {
        return afterPowerCut([](std::size_t, bool) { return Fate::lost; });
    }

private:
    struct Node {
        bool isFolder = false;
        std::string safe;
        std::string now;
    };
    using NodePtr = std::shared_ptr<Node>;
    using Names = std::map<std::string, NodePtr>;

    /// One name that is set, or removed where there is no node.
    struct Naming {
        std::string path;
        NodePtr node;
        bool isSafe = false;
    };
    struct PendingName {
        std::uint64_t order;
        std::vector<Naming> changes;  ///< A rename has two.
    };
    struct PendingWrite {
        std::uint64_t order;
        NodePtr node;
        std::string bytes;
        std::size_t offset = 0;
        bool truncates = false;  ///< Cuts or lengthens the file to `offset`.
    };

    [[nodiscard]] std::optional<std::string> inside(const std::filesystem::path& path) const;
    void name(std::vector<Naming> changes);
    static void put(std::string& content, const PendingWrite& change);
    void write(PendingWrite change);
    void sync(const NodePtr& node, const std::string& path);
    void drop(const NodePtr& node, const std::string& path);

    std::filesystem::path root_;
    Names safe_;
    Names now_;
    struct Open {
        NodePtr node;
        std::string path;
    };
    std::map<int, Open> open_;
    std::vector<PendingName> pendingNames_;
    std::vector<PendingWrite> pendingWrites_;
    std::uint64_t order_ = 0;
};

}  // namespace quillmere::test
