#include "QuillmereKit/Platform/Trash.hpp"

#ifdef QUILLMERE_TRASH

#include <dlfcn.h>

#include <memory>
#include <string>

namespace quillmere {
namespace {

/// The few functions of GIO 2 that moving to the trash needs. The library is loaded on first use: linked, it would cost
/// every start of every program several milliseconds.
struct GIO {
    void* (*localFiles)() = nullptr;                     // GVfs* g_vfs_get_local(void)
    void* (*fileForPath)(void*, const char*) = nullptr;  // GFile* g_vfs_get_file_for_path(GVfs*, const char*)
    int (*trash)(void*, void*, void**) = nullptr;        // gboolean g_file_trash(GFile*, GCancellable*, GError**)
    void (*unref)(void*) = nullptr;                      // void g_object_unref(gpointer)
    bool isComplete = false;

    GIO() noexcept {
        // Never unloaded: GLib registers its types once in a process.
        void* library = ::dlopen("libgio-2.0.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (library == nullptr) return;
        isComplete = find(library, "g_vfs_get_local", localFiles) &&
                     find(library, "g_vfs_get_file_for_path", fileForPath) && find(library, "g_file_trash", trash) &&
                     find(library, "g_object_unref", unref);
    }

private:
    template <typename Function>
    static bool find(void* library, const char* name, Function& function) noexcept {
        function = reinterpret_cast<Function>(::dlsym(library, name));
        return function != nullptr;
    }
};

}  // namespace

bool moveToTrash(const std::filesystem::path& item) noexcept {
    static const GIO gio;
    if (!gio.isComplete || item.empty() || item.native().find('\0') != std::string::npos) return false;
    // Only the local file system's own implementation: no network service is loaded or asked.
    const std::unique_ptr<void, void (*)(void*)> file(gio.fileForPath(gio.localFiles(), item.c_str()), gio.unref);
    return file != nullptr && gio.trash(file.get(), nullptr, nullptr) != 0;
}

}  // namespace quillmere

#else

namespace quillmere {

bool moveToTrash(const std::filesystem::path&) noexcept { return false; }

}  // namespace quillmere

#endif
