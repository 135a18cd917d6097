#include <tarnwick/log.h>
#include <tarnwick/url.h>
#include <tarnwick/utf8.h>

#include <ace/INET_Addr.h>

#include <cerrno>
#include <new>
#include <string>

namespace Tarnwick {

int checkURL(const wchar_t* url) {
    if (url == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int result = -1;
    try {
        std::wstring host(url);
        if (host.compare(0, 7, L"http://") == 0) {
            host.erase(0, 7);
        } else if (host.compare(0, 8, L"https://") == 0) {
            host.erase(0, 8);
        }
        // A port ends the host before a path does: "host:8443/x" and also
        // "host/a:b", which cuts at the ":" of the path.
        std::wstring::size_type cut = host.find(L':');
        if (cut == std::wstring::npos) {
            cut = host.find(L'/');
        }
        if (cut != std::wstring::npos) {
            host.resize(cut);
        }
        char* name = wcstoutf8_malloced(host.c_str());
        if (name != nullptr) {
            ACE_INET_Addr address;
            result = address.set(static_cast<u_short>(80), name, 1, AF_UNSPEC);
            utf8free(name);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        result = -1;
    }
    if (result == -1) {
        TW_LOG(
            "%D ERROR (%t): '%W' is not a valid URL, has an invalid hostname/IP address or "
            "resolving the hostname failed.\n",
            url);
        return -1;
    }
    return 0;
}

}  // namespace Tarnwick
