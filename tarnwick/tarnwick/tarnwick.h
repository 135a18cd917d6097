// The library's free functions in one include: bounded strings, UTF-8
// conversion, Base64, the stored password form, the token random source, task
// threads, process limits and user switching, process termination, the URL
// check, command names
// and the checks of the application's directories. Each group has a header of
// its own; code inside the library includes those instead of this one.
#pragma once

#include <tarnwick/base64.h>
#include <tarnwick/commands.h>
#include <tarnwick/configuration_paths.h>
#include <tarnwick/password.h>
#include <tarnwick/process_termination.h>
#include <tarnwick/random.h>
#include <tarnwick/strings.h>
#include <tarnwick/system.h>
#include <tarnwick/url.h>
#include <tarnwick/utf8.h>
