#!/bin/bash
# From a plain configuration to the archive, as one who packages goes about it; nothing of it is started here.
#
#   packaging_test.sh SOURCE WORK
#
# Builds SOURCE below the folder WORK with the compilers that CMake picks, a toolkit in a prefix of its own and a
# companion; installs below DESTDIR, signs with a stand-in for codesign, and packs.
set -Eeuo pipefail
export LC_ALL=C.UTF-8 # sorting
trap 'echo "line $LINENO: $BASH_COMMAND" >&2' ERR
source=$1
mkdir -p "$2/toolkit/bin" "$2/tools" && cd "$2"
rm -rf toolkit/lib toolkit/include below unpacked Korvane-*

# A toolkit that can be told from the system's: each of its libraries is one byte longer.
system=$(dirname /usr/lib/*/libwx_baseu-*.so)
libraries=toolkit/${system#/usr/}
mkdir -p "$libraries"
ln -s /usr/include toolkit/include
cp -a "$system"/libwx_* "$system/wx" "$libraries"
find "$libraries" -name 'libwx_*' -type f | while read -r library; do printf '\0' >>"$library"; done
prefix=$PWD/toolkit
printf '#!/bin/sh\nexec wx-config --prefix=%s --exec-prefix=%s "$@"\n' "$prefix" "$prefix" >toolkit/bin/wx-config
# shellcheck disable=SC2016
printf '#!/bin/sh\necho "$@" >>%s/signed\ncase $1 in --verify) exit $STATUS ;; esac\n' "$PWD" >tools/codesign
chmod +x toolkit/bin/wx-config tools/*

target=/opt/korvane-packaging-test
cmake --fresh -S "$source" -B build -G Ninja -DBUILD_TESTING=OFF -DCMAKE_UNITY_BUILD=ON \
    -DKORVANE_COMPANION="$source/sandbox/KR.app/" \
    -DwxWidgets_CONFIG_EXECUTABLE="$prefix/bin/wx-config"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/CMakeCache.txt)
cmake --build build
DESTDIR=$PWD/below cmake --install build --prefix $target
[ ! -e $target ]
installed=$PWD/below$target
for library in "$installed"/Korvane.app/Contents/Frameworks/*; do
    cmp "$library" "$libraries/${library##*/}"
done

# What a signature can seal: code alone where code belongs, and links that lead nowhere else.
check_layout() {
    local contents file
    contents=$(realpath "$1/Korvane.app/Contents")
    [ "$(ls "$1")" = $'KR.app\nKorvane\nKorvane.app' ]
    find "$contents" -type l | while read -r file; do
        [[ $(readlink "$file") != /* && $(realpath -e "$file") == "$contents"/* ]]
    done
    [ "$(find "$contents/MacOS" -type f -executable -printf '%f\n')" = Korvane ]
    find "$contents/MacOS" "$contents/Frameworks" -type f ! -name Korvane | while read -r file; do
        [[ $file == */Frameworks/*.so* && $(head -c 4 "$file") = $'\x7fELF' ]]
    done
    [ "$(find "$contents/MacOS" -type l -printf '%f\n' | sort)" = $'Korvane.bmp\nKorvane.version\noffline.png' ]
    [ "$(cat "$contents/MacOS/Korvane.version")" = "$version" ]
    python3 - "$contents/Info.plist" "$version" <<'END'
import plistlib, sys
properties, version = plistlib.load(open(sys.argv[1], "rb")), sys.argv[2]
assert properties["NSHumanReadableCopyright"].startswith("Copyright ©")
assert properties["LSUIElement"] is properties["LSAppNapIsDisabled"] is True
assert properties["CFBundleVersion"] == properties["CFBundleShortVersionString"] == version
expected = {"CFBundleIdentifier": "com.mervix.korvane", "CFBundleIconFile": "Korvane"}
expected |= {"CFBundleDevelopmentRegion": "en", "LSMinimumSystemVersion": "26.0"}
assert properties.items() >= expected.items(), properties
END
    [ -x "$1/KR.app/Contents/MacOS/KR" ]
    [[ $(<"$contents/Info.plist") == *"Executable</key>"$'\n'"  <string>Korvane<"* ]] # for fixup_bundle
}
check_layout "$installed"

# Installer installs each bundle where the package says, also over a newer one.
python3 - <<'END'
import plistlib
bundles = plistlib.load(open("build/packaging/components.plist", "rb"))
for name, bundle in zip(("Korvane.app", "KR.app"), bundles, strict=True):
    assert bundle["RootRelativeBundlePath"] == f"Applications/{name}", bundle
    assert bundle["BundleIsRelocatable"] is bundle["BundleIsVersionChecked"] is False, bundle
END

sign() {
    : >signed
    STATUS=$2 PATH=$PWD/tools:$PATH cmake -D FOLDER="$installed" -D IDENTITY="$1" -P "$source/packaging/sign.cmake"
}
sign "Developer ID" 0
options="--force --sign Developer ID --options runtime --timestamp"
diff signed - <<EXPECTED
$(find "$installed/Korvane.app/Contents/Frameworks" -type f | sort | sed "s|^|$options |")
$options --identifier com.mervix.korvane.log-in $installed/Korvane
$options $installed/Korvane.app
--verify --strict --verbose=2 $installed/Korvane
--verify --strict --verbose=2 $installed/Korvane.app
EXPECTED
if sign - 1 || grep -q runtime signed; then exit 1; fi

cpack --config build/CPackConfig.cmake -B .
mkdir unpacked
tar -xf Korvane-*.tar.gz -C unpacked
check_layout unpacked/Korvane-*
