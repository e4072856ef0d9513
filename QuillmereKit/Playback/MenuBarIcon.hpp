#pragma once

#include <string_view>

#include "QuillmereKit/Platform/Enumeration.hpp"

namespace quillmere {

/// The icon in the menu bar; its raw value names the image.
enum class MenuBarIcon { idle, playing, generating };

/// The table's row.
struct MenuBarIconRow {
    MenuBarIcon value;     ///< The case.
    std::string_view raw;  ///< Its raw value.
};
/// The cases and their texts.
template <>
inline constexpr auto enumTable<MenuBarIcon> = EnumTable<MenuBarIconRow, 3>{{{
    {MenuBarIcon::idle, "idle"},
    {MenuBarIcon::playing, "playing"},
    {MenuBarIcon::generating, "generating"},
}}};
static_assert(enumTable<MenuBarIcon>.isInCaseOrder());

}  // namespace quillmere
