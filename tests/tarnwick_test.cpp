// The umbrella header: <tarnwick/tarnwick.h> alone brings every free
// function of the library within reach, as clients have always used it. The
// functions themselves are tested per module (strings_test, utf8_test,
// base64_test, password_test, random_test, system_test, url_test,
// commands_test; the application path checks in path_test).
#include <tarnwick/tarnwick.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TarnwickHeaderTest, EveryFreeFunctionIsDeclared) {
    // Taking each address fails to compile when the header misses one.
    size_t (*strlcpy_narrow)(char*, const char*, size_t) = Tarnwick::strlcpy;
    size_t (*strlcpy_wide)(wchar_t*, const wchar_t*, size_t) = Tarnwick::strlcpy;
    size_t (*strlncpy_narrow)(char*, const char*, size_t, size_t) = Tarnwick::strlncpy;
    size_t (*strlncpy_wide)(wchar_t*, const wchar_t*, size_t, size_t) = Tarnwick::strlncpy;
    char* (*strcpy_narrow)(char*, const char*, size_t) = Tarnwick::strcpy;
    wchar_t* (*strcpy_wide)(wchar_t*, const wchar_t*, size_t) = Tarnwick::strcpy;
    char* (*strncpy_narrow)(char*, const char*, size_t, size_t) = Tarnwick::strncpy;
    size_t (*strlen_narrow)(const char*, size_t) = Tarnwick::strlen;
    size_t (*strlen_wide)(const wchar_t*, size_t) = Tarnwick::strlen;
    char* (*strcat_narrow)(char*, const char*, size_t) = Tarnwick::strcat;
    wchar_t* (*strcat_wide)(wchar_t*, const wchar_t*, size_t) = Tarnwick::strcat;
    char* (*strncat_narrow)(char*, const char*, size_t, size_t) = Tarnwick::strncat;
    wchar_t* (*strncat_wide)(wchar_t*, const wchar_t*, size_t, size_t) = Tarnwick::strncat;
    const void* const strings[] = {reinterpret_cast<const void*>(strlcpy_narrow),
                                   reinterpret_cast<const void*>(strlcpy_wide),
                                   reinterpret_cast<const void*>(strlncpy_narrow),
                                   reinterpret_cast<const void*>(strlncpy_wide),
                                   reinterpret_cast<const void*>(strcpy_narrow),
                                   reinterpret_cast<const void*>(strcpy_wide),
                                   reinterpret_cast<const void*>(strncpy_narrow),
                                   reinterpret_cast<const void*>(strlen_narrow),
                                   reinterpret_cast<const void*>(strlen_wide),
                                   reinterpret_cast<const void*>(strcat_narrow),
                                   reinterpret_cast<const void*>(strcat_wide),
                                   reinterpret_cast<const void*>(strncat_narrow),
                                   reinterpret_cast<const void*>(strncat_wide)};

    bool (*wcstoutf8_string)(const wchar_t*, std::string&) = Tarnwick::wcstoutf8;
    bool (*utf8towcs_string)(const char*, std::wstring&) = Tarnwick::utf8towcs;
    const void* const others[] = {
        reinterpret_cast<const void*>(Tarnwick::wcstoutf8_malloced),
        reinterpret_cast<const void*>(Tarnwick::utf8towcs_malloced),
        reinterpret_cast<const void*>(Tarnwick::wcsfree),
        reinterpret_cast<const void*>(Tarnwick::utf8free),
        reinterpret_cast<const void*>(wcstoutf8_string),
        reinterpret_cast<const void*>(utf8towcs_string),
        reinterpret_cast<const void*>(Tarnwick::wcstoutf8_buf),
        reinterpret_cast<const void*>(Tarnwick::utf8towcs_buf),
        reinterpret_cast<const void*>(Tarnwick::isValidUTF8),
        reinterpret_cast<const void*>(Tarnwick::Base64Encode),
        reinterpret_cast<const void*>(Tarnwick::Base64Decode),
        reinterpret_cast<const void*>(Tarnwick::EncodePassword),
        reinterpret_cast<const void*>(Tarnwick::DecodePassword),
        reinterpret_cast<const void*>(Tarnwick::Random),
        reinterpret_cast<const void*>(Tarnwick::startThread),
        reinterpret_cast<const void*>(Tarnwick::available_handles),
        reinterpret_cast<const void*>(Tarnwick::become_user),
        reinterpret_cast<const void*>(Tarnwick::set_fd_limit),
        reinterpret_cast<const void*>(Tarnwick::checkURL),
        reinterpret_cast<const void*>(Tarnwick::translate_command),
        reinterpret_cast<const void*>(Tarnwick::check_path),
        reinterpret_cast<const void*>(Tarnwick::validate_all_application_paths),
        reinterpret_cast<const void*>(Tarnwick::createPathsFromConfig)};

    for (const void* function : strings)
        EXPECT_NE(nullptr, function);
    for (const void* function : others)
        EXPECT_NE(nullptr, function);
}

}  // namespace
