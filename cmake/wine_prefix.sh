#!/bin/sh
# wine_prefix.sh start|stop PREFIX
# The Wine prefix that the Windows tests run in. "start" makes it when it is missing, maps the drives
# that the tests look for, and leaves its server running: each program then starts in a tenth of a
# second and not in seconds. "stop" ends the server of this prefix and of no other.
#
#   E:  fixed, with \tambdb        H:  fixed, without it        Q:  fixed, \tambdb is a file
#   F:  floppy, with \tambdb       I:  optical, with \tambdb
#   G:  network, with \tambdb      J:  RAM disk, with \tambdb
#
# The drives lie in PREFIX/drives. A test that writes to one leaves it as it was.
set -eu

command=$1
export WINEPREFIX="$2"
export WINEDEBUG=-all
export LC_ALL=C.UTF-8
export WINEDLLOVERRIDES='mscoree,mshtml=' # no question about what they could install
drives='e:hd f:floppy g:network h:hd i:cdrom j:ramdisk q:hd'

# Nothing that stays may keep the standard output of whoever started this.
quiet() { "$@" </dev/null >/dev/null 2>&1; }

stop() {
    quiet wineserver -k || true
    quiet wineserver -w || true
}

map_drives() {
    mkdir -p "$WINEPREFIX/drives"
    # What kind a drive is stands in the registry, and is read when the server starts.
    {
        printf 'REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Wine\\Drives]\r\n'
        for drive in $drives; do
            printf '"%s:"="%s"\r\n' "${drive%%:*}" "${drive#*:}"
        done
    } >"$WINEPREFIX/drives.reg"
    for drive in $drives; do
        letter=${drive%%:*}
        mkdir -p "$WINEPREFIX/drives/$letter"
        ln -sfn "../drives/$letter" "$WINEPREFIX/dosdevices/$letter:"
    done
    for letter in e f g i j; do
        mkdir -p "$WINEPREFIX/drives/$letter/tambdb"
    done
    : >"$WINEPREFIX/drives/q/tambdb"
    quiet wine regedit "$WINEPREFIX/drives.reg"
}

case $command in
start)
    if ! [ -e "$WINEPREFIX/ready" ]; then
        rm -rf "$WINEPREFIX"
        mkdir -p "$WINEPREFIX"
        quiet wine wineboot -i
        map_drives
        stop
        : >"$WINEPREFIX/ready"
    fi
    # It opens the files of all programs. Run by root it would write to what may not be written; what
    # it does not need to have for that it gives up, where it may.
    set --
    if setpriv --bounding-set=-dac_override true 2>/dev/null; then
        set -- setpriv --bounding-set=-dac_override
    fi
    quiet "$@" wineserver -p
    quiet wine cmd /c exit # the services start once, with the first program
    ;;
stop)
    stop
    ;;
*)
    echo "wine_prefix.sh: neither start nor stop" >&2
    exit 2
    ;;
esac
