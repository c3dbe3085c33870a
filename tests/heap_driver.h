// Runs a heap beside a plain model. The input decides all: the geometry, then one operation after the other. The
// random test and the fuzzer share it, so that what either finds is replayed by the other.
#ifndef BRENVOLE_TESTS_HEAP_DRIVER_H
#define BRENVOLE_TESTS_HEAP_DRIVER_H

#include <cstdint>
#include <span>
#include <string>

// Empty if heap and model agreed to the end, else what differed and at which operation.
std::string driveHeap(std::span<const uint8_t> input, bool refuseMap);

#endif
