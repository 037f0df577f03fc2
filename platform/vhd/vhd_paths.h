// Path arithmetic for parent locators, on UTF-16 paths with '\' or '/'
// separators. Component names compare without regard to ASCII case, as the
// file systems that hold backup sessions do.
#pragma once

#include <string>

namespace kx::vhd {

// The folder part of a path (without its trailing separator), or "" when the
// path names no folder.
std::u16string DirectoryOf(const std::u16string& path);
// The last component of a path.
std::u16string FileNameOf(const std::u16string& path);
// `relative` (which may begin with ".\") appended to `folder`.
std::u16string JoinRelative(const std::u16string& folder, const std::u16string& relative);
// The path of `target` seen from `folder`, both absolute: ".\name" in the
// same folder, "..\..\x\name" elsewhere; "" when they share no root.
std::u16string RelativePath(const std::u16string& folder, const std::u16string& target);

}  // namespace kx::vhd
