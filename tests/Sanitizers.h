#ifndef OSTRELLED_TESTS_SANITIZERS_H
#define OSTRELLED_TESTS_SANITIZERS_H

// 1 in the AddressSanitizer build, whose runtime makes mlock and mlockall
// no-ops and ends a process that dlopens with RTLD_DEEPBIND.
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
