#!/usr/bin/env bash
# Proves that the subsystems' library needs the C and C++ standard libraries and nothing else: all of it is linked into
# a shared object against just those, with no undefined symbol left.
#   check_subsystem_link.sh BUILD-FOLDER     a build without sanitizers
set -euo pipefail
archive=$1/libquorvix_subsystems.a
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

links() {
    "${CXX:-g++}" -shared -nodefaultlibs -o "$folder/all.so" -Wl,--whole-archive "$@" -Wl,--no-whole-archive \
        -lstdc++ -lm -lc -lgcc_s -lgcc -Wl,-z,defs
}

# The check itself must be able to fail: an archive that calls a database does not link.
cat >"$folder/planted.c" <<'END'
int sqlite3_initialize(void);
int planted(void);
int planted(void) { return sqlite3_initialize(); }
END
"${CC:-gcc}" -fPIC -c -o "$folder/planted.o" "$folder/planted.c"
ar rc "$folder/planted.a" "$folder/planted.o"
if links "$folder/planted.a" 2>/dev/null; then
    echo "a planted call to another library was not found: this check is blind" >&2
    exit 1
fi

[[ -s $archive ]] || { echo "$archive is missing" >&2; exit 1; }
links "$archive"
# The C library holds these too, but only the platform may call them.
system='socket|bind|connect|recvmsg|sendmsg|open|open64|openat|fopen|fopen64|read|write|mmap|mmap64|fork|execve|dlopen|dlsym|clock_gettime|pthread_create|nanosleep|syscall|ioctl'
if nm --undefined-only --no-demangle "$archive" | awk '{print $NF}' | grep -Ex "$system"; then
    echo "the subsystems call the operating system directly (above)" >&2
    exit 1
fi
