// The instances of Configuration::getValue that the library provides.
#pragma once

#include <tarnwick/configuration.h>

#include <string>

namespace Tarnwick {

extern template int Configuration::getValue<bool>(const wchar_t* key, bool& out, bool warn,
                                                  bool encoded);
extern template int Configuration::getValue<int>(const wchar_t* key, int& out, bool warn,
                                                 bool encoded);
extern template int Configuration::getValue<unsigned int>(const wchar_t* key, unsigned int& out,
                                                          bool warn, bool encoded);
extern template int Configuration::getValue<std::string>(const char* key, std::string& out,
                                                         bool warn, bool encoded);
extern template int Configuration::getValue<int>(const char* key, int& out, bool warn,
                                                 bool encoded);

}  // namespace Tarnwick
