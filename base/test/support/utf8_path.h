// utf8_path.h: paths as the library has them, bytes in UTF-8, to and from those of the standard
// library, which on some systems takes plain bytes for text in an older encoding.
#pragma once

#include <filesystem>
#include <string>

inline std::filesystem::path Utf8Path(const std::string& text)
{
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

inline std::string Utf8Text(const std::filesystem::path& path)
{
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}
