// Error records and chains, their printing, images and checksum, the type
// registry and the malfunction handler.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/error_state.hpp"
#include "support/test_support.hpp"
#include "vepra.h"

using vepra_test::Chain;
using vepra_test::take_printed;

namespace {

// A new chain of one record without location.
vepra_error_t *rec(int type, int code, const char *message) {
  return vepra_error_create_i(type, code, 0, nullptr, nullptr, nullptr, message);
}

// Every field of every record, head first, null texts shown, and whether
// the record lives in the chain's pool.
std::string fields(const vepra_error_t *chain) {
  const auto show = [](const char *s) { return s != nullptr ? "'" + std::string(s) + "'" : "-"; };
  std::string out;
  for (const vepra_error_t *r = chain; r != nullptr; r = r->next) {
    out += std::to_string(r->type) + " " + std::to_string(r->code) + " " + std::to_string(r->line) +
           " " + show(r->message) + " " + show(r->file) + " " + show(r->function) +
           (r->pool == chain->pool ? ";" : " elsewhere;");
  }
  return out;
}

std::vector<unsigned char> image_of(const vepra_error_t *chain) {
  void *buf = nullptr;
  size_t len = 0;
  vepra_error_serialize(chain, &buf, &len);
  std::vector<unsigned char> image(static_cast<unsigned char *>(buf),
                                   static_cast<unsigned char *>(buf) + len);
  std::free(buf);
  return image;
}

Chain restore(const std::vector<unsigned char> &image) {
  vepra_error_t *out = VepraDLlistStopWalking;
  EXPECT_EQ(vepra_error_deserialize(&out, image.data(), image.size()), &out);
  return Chain(out);
}

// 1 to 50 records: any type and code, texts null, empty, long or of any
// byte but 0, with or without a location.
Chain random_chain(std::mt19937 &rng) {
  const auto random_text = [&rng] {
    std::string s(rng() % 3 == 0 ? rng() % 3000 : rng() % 20, 'a');
    for (auto &c : s) c = static_cast<char>(1 + rng() % 255);
    return s;
  };
  vepra_error_t *chain = nullptr;
  for (int i = 0, n = 1 + static_cast<int>(rng() % 50); i < n; ++i) {
    const std::string msg = random_text(), file = "dir/" + random_text(), fn = random_text();
    const bool located = rng() % 2 == 0;
    chain = vepra_error_create_i(static_cast<int>(rng() % 6), static_cast<int>(rng()),
                                 located ? static_cast<int>(rng()) : 0,
                                 located ? file.c_str() : nullptr, located ? fn.c_str() : nullptr,
                                 chain, rng() % 3 == 0 ? nullptr : msg.c_str());
  }
  return Chain(chain);
}

// Malfunction handler for the tests: keeps the printed chain and hands it
// back instead of aborting.
std::vector<std::string> g_malfunctions;
vepra_error_t *recording_handler(vepra_error_t *chain) noexcept {
  g_malfunctions.push_back(take_printed(vepra_error_dup(chain)));
  return chain;
}

using ErrorTest = vepra_test::LibraryTest;

}  // namespace

// Nested initialisation must not rebuild the library, the inner terminate
// must not tear it down, and the last one frees the chains and names left
// behind (LeakSanitizer checks at exit).
TEST(LifecycleTest, NestedInitialiseCountsAndLastTerminateTearsDown) {
  EXPECT_STREQ(vepra_version_string(), "1.0.0");
  ASSERT_EQ(vepra_initialize(), 0);
  apr_pool_t *root = vepra_pool;
  ASSERT_EQ(vepra_initialize(), 0);
  EXPECT_EQ(VepraInitialized, 2u);
  EXPECT_EQ(vepra_pool, root) << "a nested call must not initialise again";
  vepra_terminate();
  // The walk-stopping sentinel is a one-record chain of its own name.
  EXPECT_EQ(take_printed(vepra_error_dup(VepraDLlistStopWalking)),
            "Error: VepraDLlistStopWalking ");
  for (int i = 0; i < 100; ++i) vepra_error_quick_wrap(rec(0, 0, "left"), "Cannot clean up.");
  int code = 0;
  vepra_error_register(&code, "registered and never deregistered");
  vepra_terminate();
  EXPECT_EQ(VepraInitialized, 0u);
  EXPECT_EQ(VepraDLlistStopWalking, nullptr);
}

// Records copy their texts; a wrap repeats its cause's type and code in
// the cause's pool; the walk visits every record head first; types and
// attachments are set on one record or all.
TEST_F(ErrorTest, RecordsWrapsWalkTypesAndAttachments) {
  char message[] = "root";
  int x = 0, y = 0;
  vepra_error_t *e = vepra_error_create_i(3, 7, 42, "/src/dir/file.c", "fn", nullptr, message);
  std::strcpy(message, "gone");
  vepra_error_set_data(e, &y);
  e = vepra_error_quick_wrap_i(9, "w.c", "g", e, "middle");
  vepra_error_set_data(e, &x);
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, nullptr);
  EXPECT_EQ(fields(e), "3 7 0 - - -;3 7 9 'middle' 'w.c' 'g';3 7 42 'root' 'file.c' 'fn';");
  EXPECT_EQ(vepra_error_root_cause(e), e->next->next);
  EXPECT_EQ(vepra_error_get_data(e), nullptr);
  EXPECT_EQ(vepra_error_get_data_first(e), &x);
  EXPECT_EQ(vepra_error_get_data_first(e->next->next), &y);
  std::string walked;
  vepra_error_walk(
      e,
      [](int code, const char *m, const char *f, int line, const char *fn, void *user) {
        *static_cast<std::string *>(user) += std::to_string(code) + (m ? m : "-") + (f ? f : "-") +
                                             std::to_string(line) + (fn ? fn : "-") + ";";
        return 1;  // cannot stop the walk
      },
      &walked);
  EXPECT_EQ(walked, "7--0-;7middlew.c9g;7rootfile.c42fn;");
  vepra_error_set_type(e->next, 1);
  EXPECT_EQ(e->type + e->next->type * 10 + e->next->next->type * 100, 313);
  vepra_error_set_type_all(e, 0);
  EXPECT_EQ(e->type + e->next->type + e->next->next->type, 0);
  vepra_error_clear(e);
}

// Composing appends copies of the second chain's records, texts included,
// and frees it; a copy gets a pool of its own but shares the locations; a
// chain composed with one of its own records is refused.
TEST_F(ErrorTest, ComposeDupAndRefusal) {
  vepra_error_t *a = vepra_error_quick_wrap_i(0, nullptr, nullptr, rec(0, 0, "A2"), "A1");
  vepra_error_t *b = vepra_error_create_i(1, 5, 0, "x/b.c", "g", nullptr, "B2");
  b = vepra_error_quick_wrap_i(0, nullptr, nullptr, b, "B1");
  std::set<const void *> borrowed = {
      b, b->message, b->next, b->next->message, b->next->file, b->next->function};
  EXPECT_EQ(vepra_error_compose_create(a, b), a);  // b is gone now
  for (const vepra_error_t *r = a; r != nullptr; r = r->next) {
    for (const void *p : std::initializer_list<const void *>{r, r->message, r->file, r->function}) {
      EXPECT_EQ(borrowed.count(p), 0u) << "copies, not the freed chain's own";
    }
  }
  const std::string all = "Error: A1 \nError: A2 \nWarning(5): B1 \nWarning(5): B2 [b.c(0), g]";
  Chain copy(vepra_error_dup(a));
  EXPECT_NE(copy->pool, a->pool);
  EXPECT_NE(copy->message, a->message);
  EXPECT_EQ(copy->next->next->next->file, a->next->next->next->file) << "locations are shared";
  EXPECT_EQ(fields(copy.get()), fields(a));
  const std::string refusal = "Error: Cannot compose an error chain with one of its own records. ";
  vepra_error_compose(a, a->next);  // refused quietly: nothing to report through
  a = vepra_error_compose_create(a, a->next->next);
  EXPECT_EQ(take_printed(a), refusal + "\n" + all);
  a = rec(0, 120051, nullptr);
  EXPECT_EQ(take_printed(vepra_error_compose_create(a, a)),
            refusal + "\nError(120051): DL insertion error: invalid pointer. ");
}

// Every field of every record, null texts included, comes back as it was,
// in one pool; a damaged image gives null or a whole chain; a cut,
// overlong or absurd one is refused whole; an image written on a host of
// the other byte order is read all the same; the checksum's layout.
TEST_F(ErrorTest, ImagesAndChecksum) {
  std::mt19937 rng(42);
  for (int round = 0; round < 200; ++round) {
    Chain chain = random_chain(rng);
    std::vector<unsigned char> image = image_of(chain.get());
    ASSERT_EQ(fields(restore(image).get()), fields(chain.get()));
    image[rng() % image.size()] ^= static_cast<unsigned char>(1 + rng() % 255);
    ASSERT_EQ(fields(restore(image).get()).find("elsewhere"), std::string::npos);
  }
  const std::vector<unsigned char> good = image_of(random_chain(rng).get());
  // Cut anywhere, with the size word made to match the cut.
  for (size_t n = 0; n < good.size(); ++n) {
    std::vector<unsigned char> cut(good.begin(), good.begin() + long(n));
    const uint32_t size = static_cast<uint32_t>(n);
    if (n >= 8) std::memcpy(cut.data() + 4, &size, 4);
    ASSERT_EQ(restore(cut), nullptr) << n;
  }
  for (const auto &row : vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/core/refused_images.tsv")) {
    std::vector<unsigned char> bad = good;
    size_t at = row[0] == "end" ? bad.size() : std::stoul(row[0]);
    for (size_t k = 0; k + 1 < row[1].size(); k += 2, ++at) {
      if (at >= bad.size()) bad.resize(at + 1);
      bad[at] = static_cast<unsigned char>(std::stoul(row[1].substr(k, 2), nullptr, 16));
    }
    EXPECT_EQ(restore(bad), nullptr) << row[2];
  }
  std::ifstream in(VEPRA_TEST_DATA_DIR "/core/chain_big_endian.tpl", std::ios::binary);
  const std::vector<unsigned char> big{std::istreambuf_iterator<char>(in), {}};
  EXPECT_EQ(fields(restore(big).get()),
            "3 125000 -7 '' 'w.c' 'g\xC3\xA9';0 120051 0 - - -;1 120051 42 'root' 'file.c' 'fn';");
  // The checksum runs over each record's integers and texts, head first,
  // with the file's directory part left out.
  Chain chain(vepra_error_create_i(3, 7, 9, "/x/y.c", "f", nullptr, nullptr));
  chain.reset(vepra_error_create_i(1, 2, 0, nullptr, nullptr, chain.release(), "ab"));
  const int32_t ints[] = {1, 2, 0, 3, 7, 9};
  std::string bytes(reinterpret_cast<const char *>(ints), 12);
  bytes += "ab";
  bytes.append(reinterpret_cast<const char *>(ints + 3), 12);
  bytes += "y.cf";
  EXPECT_EQ(vepra_error_crc16(chain.get()), vepra_util_crc16(0, bytes.data(), bytes.size()));
  // A null chain gives an empty image; null arguments are safe.
  const std::vector<unsigned char> empty = image_of(nullptr);
  EXPECT_EQ(restore(empty), nullptr);
  void *buf = &buf;
  vepra_error_serialize(nullptr, &buf, nullptr);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(vepra_error_deserialize(nullptr, empty.data(), empty.size()), nullptr);
  vepra_error_t *out = VepraDLlistStopWalking;
  EXPECT_EQ(*vepra_error_deserialize(&out, nullptr, 10), nullptr);
}

// One record of each kind prints its label, code, text and place as the
// table says; the macros fill in the caller's place; APR's text follows a
// formatted message or stands alone.
TEST_F(ErrorTest, PrintedRecords) {
  const auto text = [](const std::string &s) { return s == "-" ? nullptr : s.c_str(); };
  for (const auto &c : vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/core/printed_records.tsv")) {
    ASSERT_EQ(c.size(), 7u);
    EXPECT_EQ(take_printed(vepra_error_create_i(std::stoi(c[0]), std::stoi(c[1]), std::stoi(c[2]),
                                                text(c[3]), text(c[4]), nullptr, text(c[5]))),
              c[6]);
  }
  vepra_error_t *e = vepra_error_createf(0, 0, nullptr, "%s-%d", "x", 7);
  const std::string place = "[error_test.cpp(" + std::to_string(__LINE__ - 1) + "), TestBody]";
  EXPECT_EQ(take_printed(e), "Error: x-7 " + place);
  const std::string missing = std::strerror(ENOENT) + std::string(" ");
  EXPECT_EQ(take_printed(vepra_error_aprwrap_i(APR_ENOENT, 0, nullptr, nullptr)),
            "Error: " + missing);
  EXPECT_EQ(take_printed(vepra_error_aprwrapf_i(APR_ENOENT, 0, nullptr, nullptr, "open %s", "a")),
            "Error: open a: " + missing);
}

// The skip rule on long chains of many codes, so that the set of printed
// codes has to grow: a record without message is skipped when an earlier
// record without message carried its code; every other record prints its
// own line, head first.
TEST_F(ErrorTest, HandleSkipsRepeatedCodesWithoutMessage) {
  std::mt19937 rng(17);
  vepra_error_t *e = nullptr;
  for (int i = 0; i < 3000; ++i) {
    const int code = 120001 + static_cast<int>(rng() % 700);
    e = vepra_error_create_i(0, code, 0, nullptr, nullptr, e, rng() % 2 == 0 ? "m" : nullptr);
  }
  std::string expected;
  std::set<int> seen;
  for (const vepra_error_t *r = e; r != nullptr; r = r->next) {
    if (r->message != nullptr) {
      expected += "Error(" + std::to_string(r->code) + "): m \n";
    } else if (seen.insert(r->code).second) {
      expected += take_printed(rec(0, r->code, nullptr)) + "\n";
    }
  }
  EXPECT_EQ(take_printed(e) + "\n", expected);
}

// Overlong texts are cut, never overrun; the standard printer adds the
// newline (without a stream it writes to stderr: see the death test).
TEST_F(ErrorTest, HandleCutsOverlongLinesAndStdHandlerPrints) {
  // The message part and its blank are cut at 4105 characters together, so
  // the blank is lost and the location follows the text directly.
  const std::string text(10000, 'x'), function(6000, 'f');
  EXPECT_EQ(take_printed(vepra_error_create_i(0, 0, 0, "f.c", "fn", nullptr, text.c_str())),
            "Error: " + text.substr(0, 4105) + "[f.c(0), fn]");
  vepra_error_t *located = vepra_error_create_i(0, 0, 0, "f.c", function.c_str(), nullptr, "m");
  EXPECT_EQ(take_printed(located).size(), 5095u) << "a line is cut at 5095";
  testing::internal::CaptureStdout();
  EXPECT_EQ(vepra_error_stdhandler("to stdout", stdout), 10);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "to stdout\n");
}

// The registry hands out the lowest free code from 125000; a freed code
// prints as unregistered until it is handed out again, also in records made
// before; a null name is refused without taking a slot.
TEST_F(ErrorTest, RegistryHandsOutLowestFreeCode) {
  int a = -1, b = 0, c = 0, d = 0;
  EXPECT_EQ(take_printed(vepra_error_register(&a, nullptr)),
            "Error(120020): Cannot register error type. \nError(120020): Assertion failure ");
  EXPECT_EQ(a, -1);
  EXPECT_EQ(vepra_error_register(&a, "alpha"), nullptr);
  EXPECT_EQ(vepra_error_register(&b, "beta"), nullptr);
  EXPECT_EQ(vepra_error_register(&c, "gamma"), nullptr);
  EXPECT_EQ(std::vector<int>({a, b, c}), std::vector<int>({125000, 125001, 125002}));
  vepra_error_t *early = rec(0, 125001, nullptr);
  EXPECT_EQ(vepra_error_deregister(125001), nullptr);
  EXPECT_EQ(take_printed(vepra_error_dup(early)), "Error(125001): Unregistered error ");
  EXPECT_EQ(vepra_error_register(&d, "delta"), nullptr);
  EXPECT_EQ(d, 125001);
  EXPECT_EQ(take_printed(early), "Error(125001): delta ");
  // Codes outside the registry change nothing.
  EXPECT_EQ(vepra_error_deregister(124999), nullptr);
  EXPECT_EQ(vepra_error_deregister(125003), nullptr);
  EXPECT_EQ(take_printed(rec(0, 125002, nullptr)), "Error(125002): gamma ");
}

// A lock that failed goes to the handler and is neither used nor released;
// a pool that cannot be made for a record or a copy sends the fatal chain to
// the handler, whose result the caller gets. When the handler returns
// nothing, the caller still gets an error: the static out-of-memory record,
// which wrapping, clearing and the setters leave as it is. Setting a handler
// returns the previous one, and null restores the default.
TEST_F(ErrorTest, MalfunctionHandler) {
  const vepra_error_malfunction_fn standard =
      vepra_error_set_malfunction_handler(recording_handler);
  int code = -1;
  vepra::testing::fail_lock_at(1);
  const std::string chain = take_printed(vepra_error_register(&code, "lost"));
  EXPECT_NE(chain.find("Error: Cannot register error type. "), std::string::npos) << chain;
  EXPECT_EQ(code, -1);
  ASSERT_EQ(g_malfunctions.size(), 1u);
  // Held here, the mutex stays held after a failed lock inside the library.
  ASSERT_EQ(apr_thread_mutex_lock(vepra::detail::g_error.mutex), APR_SUCCESS);
  vepra::testing::fail_lock_at(1);
  EXPECT_EQ(vepra_error_set_malfunction_handler(recording_handler), recording_handler);
  EXPECT_TRUE(APR_STATUS_IS_EBUSY(apr_thread_mutex_trylock(vepra::detail::g_error.mutex)));
  ASSERT_EQ(apr_thread_mutex_unlock(vepra::detail::g_error.mutex), APR_SUCCESS);
  ASSERT_EQ(vepra_error_register(&code, "kept"), nullptr);
  EXPECT_EQ(code, 125000);
  g_malfunctions.clear();
  vepra::testing::fail_pool_create_at(1);
  vepra_error_t *e = rec(0, 120051, "lost");
  ASSERT_EQ(g_malfunctions.size(), 1u);
  const std::string fatal =
      "Malfunction: Impossible to continue. Aborting... \n"
      "Error: Cannot create error. \nError: " +
      std::string(std::strerror(ENOMEM)) + " ";
  EXPECT_EQ(g_malfunctions[0], fatal);
  EXPECT_EQ(take_printed(e), fatal);
  vepra::testing::fail_pool_create_at(1);
  Chain copy(vepra_error_dup(VepraDLlistStopWalking));
  ASSERT_EQ(g_malfunctions.size(), 2u);
  EXPECT_NE(g_malfunctions[1].find("Error: Cannot duplicate error. "), std::string::npos);
  // A handler that returns nothing.
  const std::string text = "Out of memory: the error could not be recorded.";
  const std::string oom = "Malfunction: " + text + " ";
  const vepra_error_malfunction_fn dropping = [](vepra_error_t *c) noexcept -> vepra_error_t * {
    vepra_error_clear(c);
    return nullptr;
  };
  EXPECT_EQ(vepra_error_set_malfunction_handler(dropping), recording_handler);
  void *p = &p;
  vepra::testing::fail_pool_create_at(1);
  e = vepra_mem_malloc(0, &p);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(fields(e), "2 0 0 '" + text + "' - -;");
  EXPECT_EQ(p, &p);
  EXPECT_EQ(vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "Cannot go on."), e);
  vepra_error_set_type_all(e, 0);
  vepra_error_set_type(e, 0);
  vepra_error_set_data(e, &p);
  vepra_error_clear(e);
  EXPECT_EQ(take_printed(e), oom);
  EXPECT_EQ(vepra_error_get_data(e), nullptr);
  // Composing it into a chain copies it; composing onto it drops the other.
  EXPECT_EQ(take_printed(vepra_error_compose_create(rec(0, 0, "A"), e)), "Error: A \n" + oom);
  EXPECT_EQ(vepra_error_compose_create(e, rec(0, 0, "A")), e);
  EXPECT_EQ(take_printed(e), oom);
  EXPECT_EQ(vepra_error_set_malfunction_handler(nullptr), dropping);
  EXPECT_EQ(vepra_error_get_malfunction_handler(), standard);
}

// The default handler prints the fatal chain and aborts.
TEST(ErrorDeathTest, DefaultHandlerPrintsAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        vepra_initialize();
        vepra::testing::fail_pool_create_at(1);
        rec(0, 0, "x");
      },
      "Malfunction: Impossible to continue. Aborting... \nError: Cannot create error. ");
}
