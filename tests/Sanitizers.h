#ifndef OSTRELLED_TESTS_SANITIZERS_H
#define OSTRELLED_TESTS_SANITIZERS_H

// OSTRELLED_TEST_UNDER_ASAN is 1 in the AddressSanitizer build (g++ or clang++),
// whose runtime replaces a few system calls: mlock and mlockall do nothing
// there, and a dlopen with RTLD_DEEPBIND ends the process.
#if defined(__SANITIZE_ADDRESS__)
#define OSTRELLED_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSTRELLED_TEST_UNDER_ASAN 1
#endif
#endif
#ifndef OSTRELLED_TEST_UNDER_ASAN
#define OSTRELLED_TEST_UNDER_ASAN 0
#endif

#endif
