#!/bin/sh
# Scales a picture for the phone's screen:
#   imageScale.sh SOURCE WIDTH HEIGHT OUTPUT MAXBYTES
# The picture is decoded, scaled to fill WIDTHxHEIGHT (cut to the centre), written to OUTPUT in the
# format its extension names (OUTPUT may be SOURCE: it is replaced only when all went well), and
# refused when the result is larger than MAXBYTES. The verdict, "1" or "0", goes to
# /tmp/imageScale.out (under $PROVISOR_ROOT on the host), where the caller reads it.
#
# Every argument is used quoted: file names never reach the shell as code.
set -u

verdict="${PROVISOR_ROOT:-}/tmp/imageScale.out"
mkdir -p "$(dirname "$verdict")"
printf '0\n' > "$verdict"

[ "$#" -eq 5 ] || exit 1
source=$1 width=$2 height=$3 output=$4 maxBytes=$5
case "$width$height$maxBytes" in *[!0-9]*|'') exit 1 ;; esac
[ "$width" -gt 0 ] && [ "$height" -gt 0 ] || exit 1
case "$source$output" in /*) ;; *) exit 1 ;; esac
case "$output" in /*) ;; *) exit 1 ;; esac
[ -f "$source" ] || exit 1

# Only the three picture formats the phone shows are decoded, each by the coder its first bytes
# name, so a file in a script-like format (SVG, MVG, MSL) is never handed to a decoder.
magic=$(head -c 4 "$source" | od -An -tx1 | tr -d ' \n')
case "$magic" in
  89504e47) coder=png ;;
  ffd8ff*) coder=jpeg ;;
  424d*) coder=bmp ;;
  *) exit 1 ;;
esac

# Dimensions first, from the header alone (-ping decodes no pixel): a picture past the bound is
# refused before any pixel cache exists, however small it is on disk. The reason follows the verdict.
maxSide=4096
dimensions=$(identify -ping -format '%w %h' "$coder:${source}[0]" 2>/dev/null) || exit 1
pictureWidth=${dimensions% *} pictureHeight=${dimensions#* }
case "$pictureWidth$pictureHeight" in *[!0-9]*|'') exit 1 ;; esac
if [ "$pictureWidth" -gt "$maxSide" ] || [ "$pictureHeight" -gt "$maxSide" ]; then
  printf '0 toolarge %s %s %s\n' "$pictureWidth" "$pictureHeight" "$maxSide" > "$verdict"
  exit 1
fi

extension=$(printf '%s' "${output##*/}" | sed -n 's/^.*\.\([A-Za-z0-9]*\)$/\1/p' | tr 'A-Z' 'a-z')
case "$extension" in
  jpg|jpeg) format=jpg ;;
  bmp) format=bmp ;;
  *) format=png ;;
esac

scratch=$(mktemp "$(dirname "$output")/.imageScale.XXXXXX") || exit 1
trap 'rm -f "$scratch"' EXIT
# "[0]": only the first frame of an animated or multi-page picture. Resource limits: at most 256 MiB
# of memory and 256 MiB of mapped cache, no pixel cache on disk (/tmp is RAM on the phone), 15 s of
# run time; a JPEG is decoded at reduced scale (twice the target at least), which costs a fraction.
convert -limit memory 256MiB -limit map 256MiB -limit disk 1MiB -limit area 17MP -limit time 15 \
  -define "jpeg:size=$((width * 2))x$((height * 2))" "$coder:${source}[0]" -auto-orient \
  -resize "${width}x${height}^" -gravity center -extent "${width}x${height}" -strip "$format:$scratch" 2>/dev/null ||
  exit 1
size=$(wc -c < "$scratch")
[ "$size" -gt 0 ] && [ "$size" -le "$maxBytes" ] || exit 1
mv -f "$scratch" "$output" || exit 1
printf '1\n' > "$verdict"
exit 0
