// What the tests ask of the platform beside the library; implemented once per platform.
#ifndef BRENVOLE_TESTS_SYSTEM_H
#define BRENVOLE_TESTS_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <string>

// Addresses, at a certain place if it is free; without memory until it is asked for. Null if there are none.
void *systemReserve(std::size_t size, uintptr_t at = 0);
// False where a region may come to lie where one was before.
extern const bool systemKeepsPlaces;
extern const bool systemIsSlow; // where it is emulated, memory takes its time
enum class Access { none, read, write };
void systemProtect(void *pages, std::size_t size, Access access);
void systemRelease(void *pages, std::size_t size);

// QXUtil's own function of that name, whose place a test has taken.
void *systemReplaced(const char *name);

void systemBlockSignals();                                   // all of them, for the calling thread
void systemSetVariable(const char *name, const char *value); // null: unset
std::string systemNewDirectory();                            // ends in a slash

// Not on every platform.
// The system's words on the mapping that holds the address, how many do (one or none), and pages of them all.
std::string mappingAt(const void *address);
int mappingsAt(const void *address);
uint64_t mappedPages();

#endif
