// Checksums and digests over 256 MiB in memory, each against its peer in
// the same run: CRC-32 against zlib's crc32 and ISA-L's crc32_gzip_refl,
// CRC-16/ARC against the portable slicing-by-8 path, SHA-1 against
// OpenSSL. Also the round trip of a three-record error chain through its
// serialised image.
#include <isa-l/crc.h>
#include <openssl/sha.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "bench_main.hpp"
#include "sys/cpu_dispatch.hpp"
#include "sys/crc_internal.hpp"
#include "vepra_error.h"
#include "vepra_sha1.h"
#include "vepra_util.h"

namespace {

constexpr std::size_t kBytes = std::size_t{256} << 20;

const std::vector<unsigned char> &data() {
  static const std::vector<unsigned char> buf = [] {
    std::vector<unsigned char> b(kBytes);
    std::mt19937_64 rng(1);
    for (std::size_t i = 0; i < b.size(); i += 8) {
      const std::uint64_t v = rng();
      for (std::size_t k = 0; k < 8; ++k) b[i + k] = static_cast<unsigned char>(v >> (8 * k));
    }
    return b;
  }();
  return buf;
}

// Runs fn over the whole buffer once an iteration, with the portable paths
// forced or not.
template <class Fn>
void over_buffer(benchmark::State &state, bool portable, Fn fn) {
  const auto &buf = data();
  vepra::testing::force_portable_paths(portable);
  for (auto _ : state) benchmark::DoNotOptimize(fn(buf.data(), buf.size()));
  vepra::testing::force_portable_paths(false);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * buf.size()));
}

void BM_Crc32(benchmark::State &s) {
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return vepra_util_crc32(0, p, n); });
}
void BM_Crc32_Clmul128(benchmark::State &s) {
  if (!vepra::detail::crc_clmul_available()) return s.SkipWithError("no PCLMULQDQ here");
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return vepra::detail::crc32_clmul(~0u, p, n); });
}
void BM_Crc32_Portable(benchmark::State &s) {
  over_buffer(s, true, [](const unsigned char *p, std::size_t n) { return vepra_util_crc32(0, p, n); });
}
void BM_Crc32_Zlib(benchmark::State &s) {
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return crc32_z(0, p, n); });
}
void BM_Crc32_Isal(benchmark::State &s) {
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return crc32_gzip_refl(0, p, n); });
}
void BM_Crc16(benchmark::State &s) {
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return vepra_util_crc16(0, p, n); });
}
void BM_Crc16_Clmul128(benchmark::State &s) {
  if (!vepra::detail::crc_clmul_available()) return s.SkipWithError("no PCLMULQDQ here");
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) { return vepra::detail::crc16_clmul(0, p, n); });
}
void BM_Crc16_Portable(benchmark::State &s) {
  over_buffer(s, true, [](const unsigned char *p, std::size_t n) { return vepra_util_crc16(0, p, n); });
}

unsigned char sha1_first_byte(const unsigned char *p, std::size_t n) {
  unsigned char d[VEPRA_SHA1_DIGEST_LENGTH];
  vepra_sha1(p, n, d);
  return d[0];
}
void BM_Sha1(benchmark::State &s) { over_buffer(s, false, sha1_first_byte); }
void BM_Sha1_Portable(benchmark::State &s) { over_buffer(s, true, sha1_first_byte); }
void BM_Sha1_OpenSsl(benchmark::State &s) {
  over_buffer(s, false, [](const unsigned char *p, std::size_t n) {
    unsigned char d[SHA_DIGEST_LENGTH];
    SHA1(p, n, d);
    return d[0];
  });
}

#define VEPRA_BENCH_BIG(fn) BENCHMARK(fn)->Unit(benchmark::kMillisecond)->MinTime(1.0)
VEPRA_BENCH_BIG(BM_Crc32);
VEPRA_BENCH_BIG(BM_Crc32_Clmul128);
VEPRA_BENCH_BIG(BM_Crc32_Isal);
VEPRA_BENCH_BIG(BM_Crc32_Zlib);
VEPRA_BENCH_BIG(BM_Crc32_Portable);
VEPRA_BENCH_BIG(BM_Crc16);
VEPRA_BENCH_BIG(BM_Crc16_Clmul128);
VEPRA_BENCH_BIG(BM_Crc16_Portable);
VEPRA_BENCH_BIG(BM_Sha1);
VEPRA_BENCH_BIG(BM_Sha1_OpenSsl);
VEPRA_BENCH_BIG(BM_Sha1_Portable);

// A three-record chain written to its image and read back.
void BM_ChainRoundTrip(benchmark::State &state) {
  vepra_error_t *e = vepra_error_create_i(0, VEPRA_E_ALLOC, 0, nullptr, nullptr, nullptr,
                                          "Failed to allocate 80 bytes of memory.");
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "Cannot allocate vector.");
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "Unable to read settings.");
  for (auto _ : state) {
    void *buf = nullptr;
    std::size_t len = 0;
    vepra_error_serialize(e, &buf, &len);
    vepra_error_t *back = nullptr;
    vepra_error_deserialize(&back, buf, len);
    benchmark::DoNotOptimize(back);
    vepra_error_clear(back);
    std::free(buf);
  }
  vepra_error_clear(e);
}
BENCHMARK(BM_ChainRoundTrip);

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv, [] { data(); }); }
