#!/usr/bin/env bash
# Checks the layering of the library's modules by their #include lines:
# utilities include only utilities, the message layer includes nothing of
# connections, application or configuration, configuration includes nothing
# of the application or the engine, no source includes the umbrella header
# <tarnwick/tarnwick.h>, and the module graph has no cycle. Prints each
# offending line and the cycles; exits non-zero when there is any.
set -uo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/../tarnwick"

util='log|path|ticked_thread|strings|utf8|base64|password|random|system|url|commands|registry|replacement_file|temporary_file|directory_iterator|path_encoder|logfile_rotate|process|process_termination|export'
msg='message_header|message_block|message_codec|xml|abstract_event|event_factory|exception|act_cache|progressinformation'
cfg='configfile|configuration|configuration_t|configuration_paths|twconfiguration|twsubconfiguration'
upper='handler|handler_t|engine|router|router_base|acceptor|application|recordset|webservice|logparser|cleanup|twprocess|tarnwick|pathobject|contentrouter|store_client|store_reader|pidfile|scheduler|service-systemd'

includes() { grep -H '^#include <tarnwick/' "$1.cpp" "tarnwick/$1.h" 2>/dev/null; }

found=0
report() {
    local title=$1 lines
    lines=$(cat)
    if [[ -n "$lines" ]]; then
        echo "== $title"
        echo "$lines"
        found=1
    fi
}

report "utilities that include a module above them" < <(
    for m in ${util//|/ }; do includes "$m" | grep -Ev "<tarnwick/($util)\.h>"; done)
report "message layer that includes a module above it" < <(
    for m in ${msg//|/ }; do includes "$m" | grep -E "<tarnwick/($upper|$cfg)\.h>"; done)
report "configuration that includes a module above it" < <(
    for m in ${cfg//|/ }; do includes "$m" | grep -E "<tarnwick/($upper)\.h>"; done)
report "sources that include the umbrella header" < <(
    grep -l '^#include <tarnwick/tarnwick.h>' ./*.cpp | grep -v '^./tarnwick.cpp$')

# Module -> included module, for every source and header; the umbrella
# source, which installs the readers of the layers, stands above them all.
edges=$(for f in ./*.cpp tarnwick/*.h; do
    m=$(basename "${f%.*}")
    grep -o '^#include <tarnwick/[a-z_0-9-]*\.h>' "$f" | sed 's@.*<tarnwick/\(.*\)\.h>@\1@' |
        grep -vx "$m" | sed "s/^/$m /"
done | grep -v '^tarnwick ')
report "module cycles" < <(tsort <<<"$edges" 2>&1 >/dev/null)

if [[ $found -eq 0 ]]; then
    echo "include graph: layered, no cycle"
fi
exit $found
