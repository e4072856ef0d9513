#include "Tests/Reliability/Disk.hpp"

#include <algorithm>
#include <utility>

namespace quillmere::test {
namespace {

/// The folder a name is in: "" for the root, "a/b" for "a/b/c".
std::string folderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

void overwrite(std::string& content, std::size_t offset, std::string_view bytes) {
    if (content.size() < offset + bytes.size()) content.resize(offset + bytes.size(), '\0');
    content.replace(offset, bytes.size(), bytes);
}

}  // namespace

Disk::Disk(std::filesystem::path root, const Tree& tree, const std::set<std::string>& unsynced)
    : root_(std::move(root)) {
    for (const auto& [path, content] : tree) {
        const bool isFolder = path.ends_with('/');
        const auto key = isFolder ? path.substr(0, path.size() - 1) : path;
        auto node = std::make_shared<Node>();
        node->isFolder = isFolder;
        if (!unsynced.contains(path)) {
            node->safe = node->now = content;
            safe_[key] = now_[key] = node;
            continue;
        }
        name({{key, node}});
        if (!isFolder) write({0, node, content});
    }
}

std::optional<std::string> Disk::inside(const std::filesystem::path& path) const {
    const auto text = path.lexically_normal().native();
    if (text == root_.native()) return "";
    if (!text.starts_with(root_.native() + "/")) return std::nullopt;
    auto rest = text.substr(root_.native().size() + 1);
    while (rest.ends_with('/')) rest.pop_back();
    return rest;
}

void Disk::name(std::vector<Naming> changes) {
    for (const auto& change : changes) {
        if (change.node) {
            now_[change.path] = change.node;
        } else {
            now_.erase(change.path);
        }
    }
    pendingNames_.push_back({order_++, std::move(changes)});
}

void Disk::put(std::string& content, const PendingWrite& change) {
    if (change.truncates) {
        content.resize(change.offset, '\0');
    } else {
        overwrite(content, change.offset, change.bytes);
    }
}

void Disk::write(PendingWrite change) {
    change.order = order_++;
    put(change.node->now, change);
    pendingWrites_.push_back(std::move(change));
}

void Disk::sync(const NodePtr& node, const std::string& path) {
    if (!node->isFolder) {
        for (const auto& write : pendingWrites_) {
            if (write.node == node) put(node->safe, write);
        }
        std::erase_if(pendingWrites_, [&](const PendingWrite& write) { return write.node == node; });
        return;
    }
    for (auto& pending : pendingNames_) {
        // A file that goes from one folder to another is not gone from the first before it is in the second.
        const bool isWhole = std::ranges::any_of(
            pending.changes, [&](const Naming& change) { return !change.node && folderOf(change.path) == path; });
        for (auto& change : pending.changes) {
            if (change.isSafe || !(isWhole || folderOf(change.path) == path)) continue;
            change.isSafe = true;
            if (change.node) {
                safe_[change.path] = change.node;
            } else {
                safe_.erase(change.path);
            }
        }
    }
    std::erase_if(pendingNames_,
                  [](const PendingName& pending) { return std::ranges::all_of(pending.changes, &Naming::isSafe); });
}

void Disk::drop(const NodePtr& node, const std::string& path) {
    if (!node->isFolder) {
        std::erase_if(pendingWrites_, [&](const PendingWrite& write) { return write.node == node; });
        return;
    }
    std::erase_if(pendingNames_, [&](const PendingName& pending) {
        return std::ranges::any_of(pending.changes, [&](const Naming& change) {
            const bool isFolder = change.node && change.node->isFolder;
            return !change.isSafe && !isFolder && folderOf(change.path) == path;
        });
    });
}

bool Disk::areBytesSafe(const std::filesystem::path& path) const {
    const auto name = inside(path);
    const auto found = name ? now_.find(*name) : now_.end();
    if (found == now_.end()) return true;
    return found->second->safe == found->second->now &&
           std::ranges::none_of(pendingWrites_, [&](const auto& write) { return write.node == found->second; });
}

void Disk::apply(const RecordedCall& call) {
    using Kind = RecordedCall::Kind;
    const auto opened = open_.find(call.descriptor);
    switch (call.kind) {
        case Kind::open: {
            const auto path = inside(call.path);
            if (!path) return;
            auto found = now_.find(*path);
            if (path->empty()) {
                auto root = std::make_shared<Node>();
                root->isFolder = true;
                open_[call.descriptor] = {root, ""};
                return;
            }
            if (found == now_.end()) {
                name({{*path, std::make_shared<Node>()}});
                found = now_.find(*path);
            }
            open_[call.descriptor] = {found->second, *path};
            return;
        }
        case Kind::write:
            if (opened == open_.end()) return;
            write({0, opened->second.node, call.bytes, static_cast<std::size_t>(call.offset)});
            return;
        case Kind::truncate:
            if (opened == open_.end()) return;
            write({0, opened->second.node, {}, static_cast<std::size_t>(call.offset), true});
            return;
        case Kind::sync:
            if (opened != open_.end()) sync(opened->second.node, opened->second.path);
            return;
        case Kind::failedSync:
            if (opened != open_.end()) drop(opened->second.node, opened->second.path);
            return;
        case Kind::close: open_.erase(call.descriptor); return;
        case Kind::rename: {
            const auto from = inside(call.path);
            const auto to = inside(call.to);
            if (from && to) name({{*to, now_.at(*from)}, {*from, nullptr}});
            return;
        }
        case Kind::link: {
            const auto from = inside(call.path);
            const auto to = inside(call.to);
            if (from && to) name({{*to, now_.at(*from)}});
            return;
        }
        case Kind::remove: {
            const auto path = inside(call.path);
            if (path) name({{*path, nullptr}});
            return;
        }
        case Kind::makeFolder: {
            const auto path = inside(call.path);
            auto folder = std::make_shared<Node>();
            folder->isFolder = true;
            if (path) name({{*path, folder}});
            return;
        }
    }
}

Tree Disk::afterPowerCut(const std::function<Fate(std::size_t index, bool isName)>& fate) const {
    // The fates go by the order in which the changes were made, names and writes together.
    std::vector<std::uint64_t> orders;
    for (const auto& pending : pendingNames_) orders.push_back(pending.order);
    for (const auto& pending : pendingWrites_) orders.push_back(pending.order);
    std::ranges::sort(orders);
    const auto fateOf = [&](std::uint64_t order, bool isName) {
        return fate(static_cast<std::size_t>(std::ranges::lower_bound(orders, order) - orders.begin()), isName);
    };

    Names names = safe_;
    for (const auto& pending : pendingNames_) {
        if (fateOf(pending.order, true) == Fate::lost) continue;
        for (const auto& change : pending.changes) {
            if (change.isSafe) continue;
            if (change.node) {
                names[change.path] = change.node;
            } else {
                names.erase(change.path);
            }
        }
    }
    std::map<const Node*, std::string> contents;
    for (const auto& pending : pendingWrites_) {
        auto& content = contents.try_emplace(pending.node.get(), pending.node->safe).first->second;
        const std::string_view bytes = pending.bytes;
        switch (fateOf(pending.order, false)) {
            case Fate::lost: break;
            case Fate::kept: put(content, pending); break;
            case Fate::torn:
                if (!pending.truncates) overwrite(content, pending.offset, bytes.substr(0, bytes.size() / 2));
                break;
            case Fate::zeros:
                if (!pending.truncates) overwrite(content, pending.offset, std::string(bytes.size(), '\0'));
                break;
        }
    }

    Tree tree;
    for (const auto& [path, node] : names) {
        bool isReachable = true;
        for (auto folder = folderOf(path); !folder.empty(); folder = folderOf(folder)) {
            const auto found = names.find(folder);
            isReachable = isReachable && found != names.end() && found->second->isFolder;
        }
        if (!isReachable) continue;
        if (node->isFolder) {
            tree[path + "/"];
            continue;
        }
        const auto content = contents.find(node.get());
        tree[path] = content == contents.end() ? node->safe : content->second;
    }
    return tree;
}

}  // namespace quillmere::test
