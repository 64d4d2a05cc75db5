#!/usr/bin/env bash
# Checks the link contract of the two archives: every vrk symbol that
# vrk::core needs from outside itself is a host hook, and the default host
# defines every host hook.
# usage: check_core_symbols.sh libvrk_core.a libvrk_default_host.a
set -euo pipefail
core=$1 host=$2
hooks=$(cat <<'LIST'
vrk::exception::default_allocator()
vrk_extern::import::abort(char const*, int, char const*)
vrk_extern::import::abort(char const*, int, char const*, long)
vrk_extern::import::caught_exception(vrk::exception const&)
vrk_extern::import::forgotten_exception(vrk::exception const&)
vrk_extern::import::get_unhandled_callback()
vrk_extern::import::print_stack_trace(vrk::basic_ostream<char>*, void**, unsigned int)
vrk_extern::import::save_stack_trace(void**, unsigned int, void const*)
vrk_extern::import::stdFileName(char const*)
LIST
)
defined=$(nm -C --defined-only "$core" | awk 'NF>=3 {$1="";$2=""; sub(/^  /,""); print}' | sort -u)
undefined=$(nm -C -u "$core" | sed -E 's/^ +U //' | sort -u)
missing=$(comm -23 <(echo "$undefined") <(echo "$defined") | grep -E '^(vrk|vrk_extern)::' || true)
extra=$(comm -23 <(echo "$missing") <(echo "$hooks" | sort) || true)
if [ -n "$extra" ]; then
  echo "vrk::core leaves undefined symbols that are not host hooks:"; echo "$extra"; exit 1
fi
host_defined=$(nm -C --defined-only "$host" | awk 'NF>=3 && $2 ~ /[TW]/ {$1="";$2=""; sub(/^  /,""); print}' | sort -u)
absent=$(comm -23 <(echo "$hooks" | sort) <(echo "$host_defined") || true)
if [ -n "$absent" ]; then
  echo "vrk::default_host does not define these host hooks:"; echo "$absent"; exit 1
fi
echo "core needs from outside: $(echo "$missing" | grep -c . || true) host hooks; default host defines all 9"
