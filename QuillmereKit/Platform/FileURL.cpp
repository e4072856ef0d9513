#include "QuillmereKit/Platform/FileURL.hpp"

#include <vector>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr std::string_view scheme = "file";

constexpr bool isLetter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}
constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// What stays as it is in a path: unreserved characters, sub-delimiters, ":", "@" and "/" (RFC 3986, 3.3).
constexpr bool staysInPath(char character) {
    return isLetter(character) || isDigit(character) ||
           std::string_view("-._~!$&'()*+,;=:@/").find(character) != std::string_view::npos;
}

constexpr int digitValue(char digit) {
    if (isDigit(digit)) return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

/// The length of the scheme of a URL text without its colon; 0 for a relative reference (RFC 3986, 3.1).
std::size_t schemeLength(std::string_view text) {
    if (text.empty() || !isLetter(text.front())) return 0;
    for (std::size_t index = 1; index < text.size(); ++index) {
        const char character = text[index];
        if (character == ':') return index;
        if (!isLetter(character) && !isDigit(character) && character != '+' && character != '-' && character != '.') {
            return 0;
        }
    }
    return 0;
}

/// The path part of a URL text, still encoded (RFC 3986, 3).
std::string_view encodedPath(std::string_view text) {
    if (const auto length = schemeLength(text); length > 0) text.remove_prefix(length + 1);
    if (text.starts_with("//")) {
        text.remove_prefix(2);
        text.remove_prefix(std::min(text.find_first_of("/?#"), text.size()));
    }
    return text.substr(0, text.find_first_of("?#"));
}

/// A "%" that two hexadecimal digits do not follow stands for itself.
std::string decoded(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] == '%' && index + 2 < text.size()) {
            const int high = digitValue(text[index + 1]);
            const int low = digitValue(text[index + 2]);
            if (high >= 0 && low >= 0) {
                result += static_cast<char>(high * 16 + low);
                index += 2;
                continue;
            }
        }
        result += text[index];
    }
    return result;
}

}  // namespace

FileURL FileURL::fromPath(const std::filesystem::path& path) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const std::string bytes = std::filesystem::absolute(path).native();
    std::string text(scheme);
    text += "://";
    for (const char byte : bytes) {
        if (staysInPath(byte)) {
            text += byte;
        } else {
            text += '%';
            text += digits[static_cast<unsigned char>(byte) >> 4];
            text += digits[static_cast<unsigned char>(byte) & 0x0F];
        }
    }
    return FileURL(std::move(text));
}

std::optional<FileURL> FileURL::fromText(std::string_view text) {
    if (text.empty()) return std::nullopt;
    return FileURL(std::string(text));
}

bool FileURL::isFile() const noexcept {
    if (schemeLength(text_) != scheme.size()) return false;
    for (std::size_t index = 0; index < scheme.size(); ++index) {
        if ((text_[index] | 0x20) != scheme[index]) return false;
    }
    return true;
}

std::filesystem::path FileURL::path() const {
    std::string path = decoded(encodedPath(text_));
    if (path.find('\0') != std::string::npos) return {};
    return path;
}

std::filesystem::path FileURL::standardPath() const { return quillmere::standardPath(path()); }

std::filesystem::path standardPath(const std::filesystem::path& path) {
    const std::string_view text = path.native();
    if (text.empty()) return {};
    const bool isAbsolute = text.starts_with('/');
    std::vector<std::string_view> parts;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('/', start), text.size());
        const auto part = text.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") continue;
        const bool isUp = part == "..";
        if (isUp && !parts.empty() && parts.back() != "..") {
            parts.pop_back();
        } else if (!isUp || !isAbsolute) {
            parts.push_back(part);
        }
    }
    std::string result;
    for (const auto part : parts) {
        if (isAbsolute || !result.empty()) result += '/';
        result += part;
    }
    if (result.empty()) result = isAbsolute ? "/" : ".";
    return result;
}

void encode(JSONWriter& writer, const FileURL& url) { writer.string(url.text()); }

template <>
FileURL decode<FileURL>(const JSONValue& value) {
    if (auto url = FileURL::fromText(value.string())) return *std::move(url);
    throw JSONError("an empty text is no URL");
}

}  // namespace quillmere
