// MSMFACE_TEST_ASAN is 1 in a build with the address sanitizer, whose quarantine of freed memory
// makes the resident size of a process meaningless to a test.
#ifndef MSMFACE_TESTS_COMMON_SANITIZER_H
#define MSMFACE_TESTS_COMMON_SANITIZER_H

#if defined(__SANITIZE_ADDRESS__)
#define MSMFACE_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MSMFACE_TEST_ASAN 1
#endif
#endif

#endif
