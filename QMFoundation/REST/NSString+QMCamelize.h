// NSString(QMCamelize): the text with its first character in upper case and
// the rest as it was ("repo_name" gives "Repo_name": separators stay). The
// upper case of one character may be longer ("ß" gives "SS"). Text that is
// empty, or does not begin with a valid UTF-8 character, comes back unchanged.
#pragma once

#include <string>
#include <string_view>

std::string camelizedString(std::string_view text);
