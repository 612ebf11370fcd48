# Sourced by the transfer benchmarks: builds (when stale) the helper that prints this
# machine's single-core MD5+SHA-1 rate, as $helper. Needs $repo and $build.
helper="$build/bench-transfer-hashrate"
if [ ! -x "$helper" ] || [ "$repo/bench/transfer/hashrate.cpp" -nt "$helper" ] || [ "$build/lib/libQel.so" -nt "$helper" ]; then
  g++ -std=c++20 -O2 -I"$repo/libqel" "$repo/bench/transfer/hashrate.cpp" -o "$helper" \
    -L"$build/lib" -lQel -Wl,-rpath,"$build/lib"
fi
