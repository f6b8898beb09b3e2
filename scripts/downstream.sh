# Sourced by the scripts that check an installed copy of the library: the one
# place that builds and runs the downstream consumer (tests/downstream).
#
# run_downstream PREFIX WORK: builds the consumer against the library under
# PREFIX twice, through the CMake package and through pkg-config, in WORK, and
# runs both builds.
run_downstream() {
  local prefix=$1 work=$2 libdir
  libdir=$(dirname "$(find "$prefix" -name libOstrelled.so | head -n 1)")
  cmake -S tests/downstream -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/cmake-build" >/dev/null
  LD_LIBRARY_PATH="$libdir" "$work/cmake-build/downstream"
  g++ -std=c++17 tests/downstream/main.cpp -o "$work/downstream-pc" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs ostrelled)
  LD_LIBRARY_PATH="$libdir" "$work/downstream-pc"
}
