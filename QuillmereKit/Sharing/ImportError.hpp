#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// Why a shared recipe was refused. `what()` and `message()` are the text for the user; several cases share one on
/// purpose, while the payloads keep the detail. Also known as `LoopRecipe::ImportError`.
class ImportError : public Error {
public:
    /// The file's format is not one of ours.
    struct UnsupportedSchema {
        std::string schema;  ///< The schema found.
        friend bool operator==(const UnsupportedSchema&, const UnsupportedSchema&) = default;
    };
    /// The identity was changed after the recipe was written.
    struct FingerprintMismatch {
        std::string expected;  ///< The fingerprint in the file.
        std::string actual;    ///< The identity's own.
        friend bool operator==(const FingerprintMismatch&, const FingerprintMismatch&) = default;
    };
    /// A mood that this installation cannot name.
    struct UnknownMood {
        std::string moodID;  ///< The mood.
        friend bool operator==(const UnknownMood&, const UnknownMood&) = default;
    };
    /// Made under another version of the generation recipe.
    struct UnsupportedRecipe {
        std::int64_t version = 0;  ///< The version found.
        friend bool operator==(const UnsupportedRecipe&, const UnsupportedRecipe&) = default;
    };
    /// No engine here renders the model.
    struct UnavailableModel {
        std::string model;  ///< The identity-model string.
        friend bool operator==(const UnavailableModel&, const UnavailableModel&) = default;
    };
    /// The mood specification carried does not fit the identity.
    struct InvalidMood {
        friend bool operator==(const InvalidMood&, const InvalidMood&) = default;
    };
    /// Rendered by another build of the engine.
    struct EngineBuildMismatch {
        friend bool operator==(const EngineBuildMismatch&, const EngineBuildMismatch&) = default;
    };
    /// An older recipe that does not say which build rendered it.
    struct MissingEngineBuild {
        friend bool operator==(const MissingEngineBuild&, const MissingEngineBuild&) = default;
    };
    /// A blend step, seed or mood id that no request can have.
    struct InvalidInputs {
        friend bool operator==(const InvalidInputs&, const InvalidInputs&) = default;
    };
    /// Made with the user's own audio, which never leaves the machine.
    struct RequiresAudioExport {
        friend bool operator==(const RequiresAudioExport&, const RequiresAudioExport&) = default;
    };
    /// The cases, in order.
    using Value =
        std::variant<UnsupportedSchema, FingerprintMismatch, UnknownMood, UnsupportedRecipe, UnavailableModel,
                     InvalidMood, EngineBuildMismatch, MissingEngineBuild, InvalidInputs, RequiresAudioExport>;

    /// The error of one of the cases.
    explicit ImportError(Value value);

    /// The case with its payload.
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    /// The case's name: "fingerprintMismatch".
    [[nodiscard]] std::string_view caseName() const noexcept;

    /// The text for the user.
    [[nodiscard]] std::string_view message() const noexcept { return what(); }

    friend bool operator==(const ImportError& a, const ImportError& b) { return a.value_ == b.value_; }

private:
    Value value_;
};

}  // namespace quillmere
