#!/usr/bin/env bash
# The mounted drive beside other file systems in user space, on the same disk in the same run: ntfs-3g and fuse2fs, which
# have a format of their own in an image file as we do, and libfuse's own pass-through example, which only hands requests
# on to the file system below. Figures of one run compare; those of two machines do not.
#   bench/mount.sh [VRKFS [DIRECTORY [MIBYTES [ROUNDS]]]]
# VRKFS: the program, as build/release/vrkfs; DIRECTORY: on the disk to measure; MIBYTES: of the large clip. As root.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
vrkfs=$(realpath "${1:-$here/../build/release/vrkfs}")
base=${2:-${TMPDIR:-/tmp}}
mibytes=${3:-512}
rounds=${4:-3}

[ "$(id -u)" -eq 0 ] || { echo "bench/mount.sh mounts and drops caches: run it as root" >&2; exit 1; }
missing=()
for package in ntfs-3g fuse2fs libfuse3-dev fuse3 gcc python3; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null

work=$(mktemp -d "$base/vrkfs-bench-XXXXXX")
echo 999999999} >"$work/mounted" # none yet
place=$work/mount
server=
leave() {
    mountpoint -q "$place" && umount -l "$place" || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    rm -rf "$work"
}
trap leave EXIT
mkdir "$place" "$work/below"

# ---- What is measured ----
subjects=(vrkfs passthrough ntfs-3g fuse2fs)
example=/usr/share/doc/libfuse3-dev/examples
gcc -O2 -D_GNU_SOURCE -DFUSE_USE_VERSION=312 -I$example -DHAVE_UTIMENSAT "$example/passthrough_ll.c" -o "$work/passthrough_ll" \
    $(pkg-config --cflags --libs fuse3) 2>/dev/null

image_mib=$((mibytes * 2 + 1024))
export VRKFS_STATION=$work/station
"$vrkfs" create-station "$VRKFS_STATION" --disks 1 --size ${image_mib}M >/dev/null
"$vrkfs" format --name BENCH --disks 0 >/dev/null
"$vrkfs" mkdir P:/RZV/BENCH/A >/dev/null
truncate -s ${image_mib}M "$work/ntfs.img" "$work/ext.img"
mkntfs -q -Q -F "$work/ntfs.img" >/dev/null 2>&1
mkfs.ext4 -q -F -i 65536 "$work/ext.img" >/dev/null 2>&1
"$vrkfs" clip make "$work/small" --frames 1 --fields 1..1 >/dev/null
"$vrkfs" clip make "$work/large" --frames $((mibytes * 1048576 / 699840)) >/dev/null

# Mounts a subject; $folder is where to work then.
start() {
    folder=$place
    case $1 in
    vrkfs)
        "$vrkfs" mount "$place" --log "$work/log" --json >"$work/mounted"
        folder=$place/P/RZV/BENCH/A
        ;;
    passthrough)
        "$work/passthrough_ll" -f -o source="$work/below" "$place" 2>/dev/null &
        server=$!
        ;;
    ntfs-3g) ntfs-3g -o big_writes "$work/ntfs.img" "$place" ;;
    fuse2fs) fuse2fs "$work/ext.img" "$place" -o rw 2>/dev/null ;;
    esac
    for _ in $(seq 200); do
        mountpoint -q "$place" && return
        sleep 0.05
    done
    echo "$1 does not mount" >&2
    exit 1
}
# Until the server has written what it had and is gone.
stop() {
    umount "$place"
    if [ -n "$server" ]; then
        wait "$server" || true
        server=
    fi
    for _ in $(seq 600); do
        pgrep -f "^[^ ]*(ntfs-3g|fuse2fs) .*$work/" >/dev/null || kill -0 "$(grep -o '[0-9]*}$' "$work/mounted" | tr -d '}')" 2>/dev/null || return 0
        sleep 0.05
    done
}
cold() {
    sync
    echo 3 >/proc/sys/vm/drop_caches
}

declare -A seconds
measure() { # subject row [file]
    local taken
    taken=$(python3 "$here/mount_rows.py" "$2" "$folder" "${3:-}")
    seconds[$1,${4:-$2}]+="$taken "
}

rows=(write write-sync read-disk read-memory create open stat list rename unlink)
for round in $(seq "$rounds"); do
    for subject in "${subjects[@]}"; do
        cold; start "$subject"; measure "$subject" write "$work/large"; rm "$folder/large"; stop
        cold; start "$subject"; measure "$subject" write-sync "$work/large"; stop
        cold; start "$subject"; measure "$subject" read large read-disk; stop
        start "$subject"; measure "$subject" read large read-memory; rm "$folder/large"; stop
        cold; start "$subject"; measure "$subject" create "$work/small"; stop
        for row in open stat list rename unlink; do
            cold; start "$subject"; measure "$subject" "$row"; stop
        done
    done
    echo "round $round of $rounds is done" >&2
done

for key in "${!seconds[@]}"; do echo "$key ${seconds[$key]}"; done | python3 "$here/mount_table.py" "$mibytes" "${rows[*]}" "${subjects[*]}"
