#include "consumer.c" // the interface is one for both languages
