#include <algorithm>

#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"

// Several recipes in one file, as somebody sends it.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    using fuzz::require;

    try {
        const auto bundle = RecipeBundle::decode(fuzz::text(data, size));
        require(bundle.schema == RecipeBundle::currentSchema, "a bundle of another schema is refused");
        fuzz::requireRoundTrip(bundle);
        const auto partition = bundle.partition();
        require(partition.usable.size() + partition.rejected.size() == bundle.recipes.size(), "no recipe is lost");
        require(std::ranges::all_of(partition.usable,
                                    [](const auto& r) { return r.fingerprint == r.identity.fingerprint(); }),
                "a usable recipe was not tampered with");
        const RecipeBundle usable{.recipes = partition.usable};
        require(RecipeBundle::decode(usable.encoded()).recipes.size() == usable.recipes.size(),
                "usable recipes can be sent on");
        static_cast<void>(bundle.encoded());
    } catch (const JSONError&) {
        return 0;
    } catch (const ImportError&) {
        return 0;
    }
    return 0;
}
