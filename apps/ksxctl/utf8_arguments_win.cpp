#include "utf8_arguments_win.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <shellapi.h>

namespace ksxctl {

std::vector<std::string> utf8Arguments() {
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> arguments;
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide == nullptr) {
        return arguments;
    }
    for (int i = 0; i < count; ++i) {
        const int bytes =
            WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
        std::string argument(bytes > 0 ? static_cast<std::size_t>(bytes) : 1u, '\0');
        WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, argument.data(), bytes, nullptr, nullptr);
        argument.resize(argument.size() - 1);  // the terminating null
        arguments.push_back(std::move(argument));
    }
    LocalFree(wide);
    return arguments;
}

}  // namespace ksxctl
