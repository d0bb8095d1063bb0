#!/bin/sh
# Splits the SDK as `cmake --install` laid it out under PREFIX (in
# debian/tmp) between the two packages, and puts what Debian wants elsewhere
# where it belongs. Whatever else the install gains later lands in vardo-sdk
# by itself.
#
#   vardo-sdk      PREFIX/bin, PREFIX/lib (the versioned libraries and
#                  libvardotools.so, a second hard link that the import
#                  command checks as a regular file), PREFIX/tools;
#                  PREFIX/config becomes /etc/vardo-sdk (conffiles), man
#                  pages go to /usr/share/man
#   vardo-sdk-dev  PREFIX/include, PREFIX/lib/cmake, PREFIX/lib/pkgconfig and
#                  the development links libvardokms.so and libovrabase.so
#
# The SDK tree the operator works in, /var/lib/vardo-sdk, is made of links
# to these (debian/vardo-sdk.links) and the directory the import writes to.
set -eu

prefix="$1"
staged="debian/tmp$prefix"
runtime="debian/vardo-sdk"
dev="debian/vardo-sdk-dev"

# The TLS stand-in and the pseudo-terminal helper are demo programs.
for demo in vardo-tls-server vardo-pty-answer; do
    if [ -e "$staged/bin/$demo" ]; then
        echo "layout.sh: $staged/bin/$demo is a demo program, not part of the product" >&2
        exit 1
    fi
done

mkdir -p "$dev$prefix/lib"
mv "$staged/include" "$dev$prefix/"
mv "$staged/lib/cmake" "$staged/lib/pkgconfig" "$dev$prefix/lib/"
for library in "$staged"/lib/*.so; do
    if [ -L "$library" ]; then
        mv "$library" "$dev$prefix/lib/"
    fi
done

if [ -d "$staged/share/man" ]; then
    mkdir -p "$runtime/usr/share"
    mv "$staged/share/man" "$runtime/usr/share/"
    rmdir "$staged/share" 2>/dev/null || true
fi

# The configuration: conffiles in /etc, seen by the programs as
# $OVRA_SDK_HOME/config through a link to the directory. The packaged log
# settings send the SDK's records to /var/log/vardo-sdk.
mkdir -p "$runtime/etc"
mv "$staged/config" "$runtime/etc/vardo-sdk"
cat >>"$runtime/etc/vardo-sdk/logging.conf" <<'CONF'
# Log directory of the installed SDK (rotated by /etc/logrotate.d/vardo-sdk).
log_dir=/var/log/vardo-sdk
CONF

mkdir -p "$runtime$prefix"
mv "$staged"/* "$runtime$prefix/"
rmdir "$staged"
