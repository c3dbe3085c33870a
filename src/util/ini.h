/** @file
 *  The format of the configuration store. Private. */
#ifndef QXUTIL_INI_H
#define QXUTIL_INI_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/** From iniName(section, key) to the text. */
using IniEntries = std::map<std::string, std::string, std::less<>>;

/** The name under which an entry is kept: both parts in lower case, a line feed between them. */
std::string iniName(std::string_view section, std::string_view key);

/** @param complaints  out: a sentence on the lines that were skipped is added, with the first few numbers */
IniEntries iniParse(std::string_view content, const std::string &path, std::string &complaints);

/** @return false, and `value` untouched, for anything but a decimal or 0x number of 32 bits, a comment allowed */
bool iniNumber(std::string_view text, uint32_t &value);

#endif
