#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and uses it as a user would:
# pkg-config and the C example, the CMake package and the C++ example, ctypes
# and the Python example; checks what the shared library exports.
#   install_and_examples.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# A Python 3 with NumPy: the system's (installed by scripts/install-deps)
# first, then whatever python3 is on the PATH.
py=""
for candidate in /usr/bin/python3 python3; do
  if "$candidate" -c "import numpy" 2>/dev/null; then py=$candidate; break; fi
done
[ -n "$py" ] || fail "no python3 with numpy found (scripts/install-deps installs python3-numpy)"

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
[ -f "$prefix/include/krolib/SuperResolutionCAdapter.h" ] || fail "C header not installed"
[ ! -e "$prefix/include/krolib/detail" ] || fail "private headers installed"
lib=$(ls "$prefix"/lib*/libKroLibEnhancement.so 2>/dev/null | head -1)
[ -n "$lib" ] || fail "shared library not installed"
pcdir=$(dirname "$(ls "$prefix"/lib*/pkgconfig/krolib-enhancement.pc)")

# Exports: the eight C functions, and nothing from the private helpers.
symbols=$(nm -D --defined-only "$lib")
for f in init release getErrorMessage queryOutputImageSize addImage getSuperresolutionImage \
         setCameraAndLensType setReferenceFrame; do
  grep -q " T SuperResolution_$f\$" <<<"$symbols" || fail "SuperResolution_$f not exported"
done
if c++filt <<<"$symbols" | grep -q "kro::detail::"; then
  fail "private helpers exported: $(c++filt <<<"$symbols" | grep 'kro::detail::' | head -3)"
fi

# The header compiles as C99 and as C++.
echo '#include <krolib/SuperResolutionCAdapter.h>
int main(void) { return SuperResolution_release(-1) == -999 ? 0 : 1; }' > "$work/h.c"
cc -std=c99 -Wall -Wextra -Werror -pedantic -I"$prefix/include" -c "$work/h.c" -o "$work/h.o" || fail "header is not C99"
c++ -std=c++17 -Wall -Wextra -Werror -x c++ -I"$prefix/include" -c "$work/h.c" -o "$work/hpp.o" || fail "header is not C++"

# A short real sequence as raw floats: 7 frames of the bundled 160x128 crop.
"$py" - "$source/data/thermal/drive_crop_160x128x10_u16.raw" "$work/frames.f32" <<'PY'
import sys, numpy as np
frames = np.fromfile(sys.argv[1], dtype="<u2").reshape(-1, 128, 160)[:7]
frames.astype("<f4").tofile(sys.argv[2])
PY

# C client through pkg-config.
export PKG_CONFIG_PATH="$pcdir"
cc -std=c99 -Wall -Wextra "$source/examples/c_client/client.c" $(pkg-config --cflags --libs krolib-enhancement) \
   -o "$work/client" || fail "C client does not build with pkg-config"
"$work/client" 160 128 "$work/frames.f32" "$work/c_result.f32" >"$work/c.out" 2>"$work/c.err" \
  || fail "C client failed: $(cat "$work/c.err")"
grep -q "7 frames in, 3 images of 320x256 out" "$work/c.out" || fail "C client said: $(cat "$work/c.out")"
[ "$(stat -c %s "$work/c_result.f32")" -eq $((3 * 320 * 256 * 4)) ] || fail "C client wrote a wrong size"

# Python through ctypes, on the installed library: same images as the C client.
"$py" "$source/examples/python/superresolve.py" 160 128 "$work/frames.f32" "$work/py_result.f32" \
  --library "$lib" >"$work/py.out" 2>"$work/py.err" || fail "Python example failed: $(cat "$work/py.err")"
grep -q "7 frames in, 3 images of 320x256 out" "$work/py.out" || fail "Python example said: $(cat "$work/py.out")"
cmp -s "$work/c_result.f32" "$work/py_result.f32" || fail "C and Python results differ"

# C++ through the CMake package.
cmake -S "$source/examples/cpp_package" -B "$work/cpp" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null \
  || fail "find_package(KroLibEnhancement) failed"
cmake --build "$work/cpp" >/dev/null || fail "C++ example does not build against the package"
"$py" - "$work/frames.f32" "$work" <<'PY'
import sys, numpy as np
frames = np.fromfile(sys.argv[1], dtype="<f4").reshape(-1, 128, 160)
for i in range(5):  # 16-bit PGM: big-endian samples
    with open(f"{sys.argv[2]}/f{i}.pgm", "wb") as f:
        f.write(b"P5\n160 128\n65535\n" + frames[i].astype(">u2").tobytes())
PY
"$work/cpp/superresolve" "$work"/f{0,1,2,3,4}.pgm "$work/cpp.pfm" >"$work/cpp.out" 2>&1 \
  || fail "C++ example failed: $(cat "$work/cpp.out")"
grep -q "320x256" "$work/cpp.out" || fail "C++ example said: $(cat "$work/cpp.out")"
# The first image of the C client is the C++ example's (same frames, same settings).
"$py" - "$work/c_result.f32" "$work/cpp.pfm" <<'PY'
import sys, numpy as np
c = np.fromfile(sys.argv[1], dtype="<f4")[:320 * 256].reshape(256, 320)
data = open(sys.argv[2], "rb").read()
header = b"Pf\n320 256\n-1.0\n"
if not data.startswith(header):
    sys.exit("C++ example wrote an unexpected .pfm header")
cpp = np.frombuffer(data[len(header):], dtype="<f4").reshape(256, 320)[::-1]
sys.exit(0 if np.array_equal(c, cpp) else "C++ and C results differ")
PY
# The local-motion engine through the package, on the bundled real crop.
"$work/cpp/moving_camera" 160 128 "$source/data/thermal/drive_crop_160x128x10_u16.raw" "$work/moving.pfm" \
  >"$work/moving.out" 2>&1 || fail "moving-camera example failed: $(cat "$work/moving.out")"
grep -q "6 frames of 320x256 written" "$work/moving.out" || fail "moving-camera example said: $(cat "$work/moving.out")"
# The fixed-point engine through the package: the same bytes as the tool.
"$work/cpp/fixed_point" 160 128 "$source/data/thermal/drive_crop_160x128x10_u16.raw" "$work/fixed.s16" \
  >"$work/fixed.out" 2>&1 || fail "fixed-point example failed: $(cat "$work/fixed.out")"
grep -q "6 frames of 320x256 written" "$work/fixed.out" || fail "fixed-point example said: $(cat "$work/fixed.out")"
"$prefix/bin/kroenhance" sr --engine fixed --reference-index 0 --size 160x128 --format u16 --quiet \
  "$source/data/thermal/drive_crop_160x128x10_u16.raw" -o "$work/tool-fixed.s16" --output-format s16 ||
  fail "kroenhance sr --engine fixed failed"
cmp -s "$work/fixed.s16" "$work/tool-fixed.s16" || fail "the fixed-point example and the tool differ"
echo "ok"
