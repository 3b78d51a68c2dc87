// Error records and chains, their printing, the type registry and the
// malfunction handler.
#include <apr_strings.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/error_internal.hpp"
#include "core/error_state.hpp"
#include "support/test_support.hpp"
#include "vepra_error.h"
#include "vepra_mem.h"
#include "vepra_str.h"
#include "vepra_version.h"

using vepra_test::Chain;
using vepra_test::LibraryTest;
using vepra_test::printed_lines;
using vepra_test::take_printed;

namespace {

std::string apr_text(apr_status_t s) {
  char buf[255];
  return apr_strerror(s, buf, sizeof buf);
}

// Malfunction handler for the tests: keeps the printed chain and hands it
// back instead of aborting.
std::vector<std::string> g_malfunctions;
vepra_error_t *recording_handler(vepra_error_t *chain) noexcept {
  g_malfunctions.push_back(take_printed(vepra_error_dup(chain)));
  return chain;
}

class ErrorTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    g_malfunctions.clear();
    previous_ = vepra_error_set_malfunction_handler(recording_handler);
  }
  void TearDown() override {
    vepra_error_set_malfunction_handler(previous_);
    LibraryTest::TearDown();
  }
  vepra_error_malfunction_fn previous_ = nullptr;
};

}  // namespace

// Nested initialisation must not rebuild the library, the inner terminate
// must not tear it down, and the last one frees the chains left behind
// (LeakSanitizer checks at exit).
TEST(LifecycleTest, NestedInitialiseCountsAndLastTerminateTearsDown) {
  EXPECT_STREQ(vepra_version_string(), "1.0.0");
  EXPECT_STREQ(vepra_version_string(), VEPRA_VERSION_STRING);
  EXPECT_EQ(vepra_version_major() * 10000 + vepra_version_minor() * 100 + vepra_version_patch(),
            10000);
  EXPECT_TRUE(VEPRA_VERSION_CHECK(1, 0, 0));
  EXPECT_FALSE(VEPRA_VERSION_CHECK(1, 0, 1));
  ASSERT_EQ(vepra_initialize(), 0);
  apr_pool_t *root = vepra_pool;
  ASSERT_EQ(vepra_initialize(), 0);
  EXPECT_EQ(VepraInitialized, 2u);
  EXPECT_EQ(vepra_pool, root) << "a nested call must not initialise again";
  vepra_terminate();
  EXPECT_EQ(take_printed(vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr)),
            "Error(120051): DL insertion error: invalid pointer. ");
  ASSERT_NE(VepraDLlistStopWalking, nullptr);
  for (int i = 0; i < 100; ++i) {
    vepra_error_t *e = vepra_error_createf(0, 0, nullptr, "left behind %d", i);
    vepra_error_quick_wrap(e, "Cannot clean up.");
  }
  int code = 0;
  vepra_error_register(&code, "registered and never deregistered");
  vepra_terminate();
  EXPECT_EQ(VepraInitialized, 0u);
  EXPECT_EQ(VepraDLlistStopWalking, nullptr);
}

TEST_F(ErrorTest, CreateStoresFieldsAndCopiesTexts) {
  Chain plain(vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(plain->type, 0);
  EXPECT_EQ(plain->code, 120051);
  EXPECT_EQ(plain->message, nullptr);
  EXPECT_EQ(plain->file, nullptr);
  EXPECT_EQ(plain->function, nullptr);
  EXPECT_EQ(plain->line, 0);
  EXPECT_EQ(plain->data, nullptr);
  EXPECT_EQ(plain->next, nullptr);
  EXPECT_NE(plain->pool, nullptr);

  char message[] = "original";
  Chain located(vepra_error_create_i(3, 7, 42, "/src/dir/file.c", "fn", nullptr, message));
  std::strcpy(message, "changed!");
  EXPECT_STREQ(located->message, "original");
  EXPECT_STREQ(located->file, "file.c");
  EXPECT_STREQ(located->function, "fn");
  EXPECT_EQ(located->line, 42);
  EXPECT_EQ(located->type, 3);
}

TEST_F(ErrorTest, LocationMacrosFillTheCallersPlace) {
  vepra_error_t *e = vepra_error_createf(0, 0, nullptr, "%s-%d", "x", 7);
  EXPECT_STREQ(e->message, "x-7");
  EXPECT_STREQ(e->file, "error_test.cpp");
  EXPECT_STREQ(e->function, "TestBody");
  EXPECT_GT(e->line, 0);
  std::string expected = "Error: x-7 [error_test.cpp(" + std::to_string(e->line) + "), TestBody]";
  EXPECT_EQ(take_printed(e), expected);
  // A location is printed only when both file and function are known.
  EXPECT_EQ(take_printed(vepra_error_create_i(0, 0, 3, "f.c", nullptr, nullptr, "m")), "Error: m ");
  EXPECT_EQ(take_printed(vepra_error_create_i(0, 0, 3, nullptr, "g", nullptr, "m")), "Error: m ");
}

TEST_F(ErrorTest, WrappedRecordsShareTheCausePoolAndRepeatTypeAndCode) {
  vepra_error_t *cause =
      vepra_error_create_i(1, 0, 0, nullptr, nullptr, nullptr, "info.name is NULL");
  vepra_error_t *head = vepra_error_quick_wrap_i(0, nullptr, nullptr, cause, "Cannot go on.");
  EXPECT_EQ(head->type, 1);
  EXPECT_EQ(head->code, 0);
  EXPECT_EQ(head->pool, cause->pool);
  EXPECT_EQ(head->next, cause);
  EXPECT_EQ(vepra_error_root_cause(head), cause);
  EXPECT_EQ(vepra_error_root_cause(cause), cause);
  EXPECT_EQ(vepra_error_root_cause(nullptr), nullptr);
  // Clearing the head frees the cause too (the sanitizers would flag a leak
  // or a double free here).
  EXPECT_EQ(take_printed(head), "Warning: Cannot go on. \nWarning: info.name is NULL ");
}

TEST_F(ErrorTest, AprWrapForms) {
  const apr_status_t s = APR_ENOENT;
  EXPECT_EQ(take_printed(vepra_error_aprwrap_i(s, 0, nullptr, nullptr)),
            "Error: " + apr_text(s) + " ");
  Chain none(vepra_error_aprwrapf_i(s, 0, nullptr, nullptr, nullptr));
  EXPECT_EQ(none->message, nullptr) << "a null format gives no message at all";
  EXPECT_EQ(none->code, 0);
  Chain formatted(vepra_error_aprwrapf_i(s, 0, nullptr, nullptr, "open %s", "a.txt"));
  EXPECT_EQ(std::string(formatted->message), "open a.txt: " + apr_text(s));
}

// The skip rule on long chains of many codes, so that the set of printed
// codes has to grow: a record without message is skipped when an earlier
// record without message carried its code; every other record prints its
// own line, head first.
TEST_F(ErrorTest, HandleSkipsRepeatedCodesWithoutMessage) {
  std::mt19937 rng(17);
  vepra_error_t *e = nullptr;
  std::vector<std::pair<int, bool>> records;  // root cause first
  for (int i = 0; i < 3000; ++i) {
    const int code = 120001 + static_cast<int>(rng() % 700);
    const bool has_message = rng() % 2 == 0;
    e = vepra_error_create_i(0, code, 0, nullptr, nullptr, e, has_message ? "m" : nullptr);
    records.emplace_back(code, has_message);
  }
  std::vector<std::string> expected;
  std::set<int> printed;
  for (auto it = records.rbegin(); it != records.rend(); ++it) {
    const auto [code, has_message] = *it;
    if (has_message) {
      expected.push_back("Error(" + std::to_string(code) + "): m ");
    } else if (printed.insert(code).second) {
      expected.push_back(
          take_printed(vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, nullptr)));
    }
  }
  EXPECT_EQ(printed_lines(e), expected);
  vepra_error_clear(e);
}

TEST_F(ErrorTest, HandleLabelsAndFallbackTexts) {
  auto line = [](int type, int code, const char *msg) {
    return take_printed(vepra_error_create_i(type, code, 0, nullptr, nullptr, nullptr, msg));
  };
  EXPECT_EQ(line(0, 0, "Unable to append DL object."), "Error: Unable to append DL object. ");
  EXPECT_EQ(line(1, 0, "info.name is NULL"), "Warning: info.name is NULL ");
  EXPECT_EQ(line(2, 0, "m"), "Malfunction: m ");
  EXPECT_EQ(line(3, 120020, nullptr), "Assert(120020): Assertion failure ");
  EXPECT_EQ(line(4, 120051, "plain text"), "plain text ");
  EXPECT_EQ(line(0, 0, nullptr), "Error: Unknown Vepra error (code=0) ");
  EXPECT_EQ(line(0, 120015, nullptr), "Error(120015): Unknown Vepra error (code=120015) ");
  EXPECT_EQ(line(0, 1, nullptr), "Error(1): Warning ");
  EXPECT_EQ(line(0, 124999, nullptr), "Error(124999): Unknown Vepra error (code=124999) ");
  EXPECT_EQ(line(0, 125000, nullptr), "Error(125000): Unregistered error ");
  // Unknown types print no label but keep code and separator; negative
  // types compare as large unsigned values.
  EXPECT_EQ(line(7, 120001, nullptr), "(120001): VEPRA has not been initialized. ");
  EXPECT_EQ(line(-1, 0, "neg"), ": neg ");
}

TEST_F(ErrorTest, EveryBuiltinCodeHasItsTableText) {
  struct Entry {
    int code;
    const char *text;
  };
  static const Entry kTable[] = {
#define VEPRA_TEST_ENTRY_(name, code, message) {code, message},
      VEPRA_ERROR_CODE_MAP(VEPRA_TEST_ENTRY_)
#undef VEPRA_TEST_ENTRY_
  };
  int listed = 0;
  for (int code = 120001; code <= 120190; ++code) {
    std::string expected = "Error(" + std::to_string(code) + "): ";
    const char *text = nullptr;
    for (const Entry &e : kTable) {
      if (e.code == code) text = e.text;
    }
    expected += text ? text : "Unknown Vepra error (code=" + std::to_string(code) + ")";
    listed += text != nullptr;
    EXPECT_EQ(take_printed(vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, nullptr)),
              expected + " ");
  }
  EXPECT_EQ(listed, 65);
  // A few texts checked letter by letter, typos included.
  EXPECT_EQ(take_printed(vepra::detail::make_error(VEPRA_E_IO_NOT_IMPL)),
            "Error(120037): The call is not implemented of applicable for such IO type. ");
  EXPECT_EQ(take_printed(vepra::detail::make_error(VEPRA_E_TRIE_KEY_MISMATCH)),
            "Error(120084): Keys of leafs do not match. ");
  EXPECT_EQ(take_printed(vepra::detail::make_error(VEPRA_E_BITARR_SIZE)),
            "Error(120190): Invalid size of bit array ");
}

TEST_F(ErrorTest, HandleCutsOverlongLinesAndReturnsTheChain) {
  std::string longtext(10000, 'x');
  vepra_error_t *e = vepra_error_create_i(0, 0, 0, "f.c", "fn", nullptr, longtext.c_str());
  std::vector<std::string> lines = printed_lines(e);
  ASSERT_EQ(lines.size(), 1u);
  // The message part and its blank are cut at 4105 characters together, so
  // the blank is lost and the location follows the text directly.
  EXPECT_EQ(lines[0], "Error: " + std::string(4105, 'x') + "[f.c(0), fn]");
  std::string longname(6000, 'f');
  vepra_error_t *located = vepra_error_create_i(0, 0, 0, "f.c", longname.c_str(), nullptr, "m");
  lines = printed_lines(located);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].size(), 5095u) << "a line is cut at 5095 characters";
  vepra_error_clear(located);
  EXPECT_EQ(vepra_error_handle(e, vepra_error_stdhandler, nullptr), e);
  EXPECT_EQ(vepra_error_handle(nullptr, vepra_error_stdhandler, nullptr), nullptr);
  vepra_error_clear(e);
  vepra_error_clear(nullptr);
}

TEST_F(ErrorTest, StdHandlerWritesLineAndNewline) {
  FILE *f = tmpfile();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(vepra_error_stdhandler("abc", f), 4);
  rewind(f);
  char buf[16] = {};
  ASSERT_NE(fgets(buf, sizeof buf, f), nullptr);
  EXPECT_STREQ(buf, "abc\n");
  fclose(f);
  testing::internal::CaptureStderr();
  vepra_error_stdhandler("to stderr", nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr\n");
}

TEST_F(ErrorTest, ComposeAppendsACopyAndFreesTheSource) {
  vepra_error_t *a = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "A2");
  a = vepra_error_quick_wrap_i(0, nullptr, nullptr, a, "A1");
  vepra_error_t *b = vepra_error_create_i(1, 0, 0, "x/b.c", "g", nullptr, "B2");
  b = vepra_error_quick_wrap_i(0, nullptr, nullptr, b, "B1");
  EXPECT_EQ(vepra_error_compose_create(nullptr, b), b);
  EXPECT_EQ(vepra_error_compose_create(a, nullptr), a);
  EXPECT_EQ(vepra_error_compose_create(nullptr, nullptr), nullptr);
  const char *b_message = b->next->message;
  const char *b_file = b->next->file;
  const char *b_function = b->next->function;
  EXPECT_EQ(vepra_error_compose_create(a, b), a);  // b is gone now
  for (vepra_error_t *r = a; r != nullptr; r = r->next) EXPECT_EQ(r->pool, a->pool);
  // The texts are copies in a's pool, not b's freed ones.
  vepra_error_t *root = vepra_error_root_cause(a);
  EXPECT_NE(root->message, b_message);
  EXPECT_NE(root->file, b_file);
  EXPECT_NE(root->function, b_function);
  EXPECT_EQ(take_printed(a), "Error: A1 \nError: A2 \nWarning: B1 \nWarning: B2 [b.c(0), g]");
  vepra_error_t *c = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "C");
  vepra_error_compose(c, nullptr);
  EXPECT_EQ(take_printed(c), "Error: C ");
}

TEST_F(ErrorTest, ComposingAChainWithItsOwnRecordsIsRefused) {
  const std::string refusal = "Error: Cannot compose an error chain with one of its own records. ";
  vepra_error_t *a = vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr);
  vepra_error_t *r = vepra_error_compose_create(a, a);
  EXPECT_EQ(r->code, 0);
  EXPECT_EQ(r->next, a);
  EXPECT_EQ(take_printed(r), refusal + "\nError(120051): DL insertion error: invalid pointer. ");
  a = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "cause");
  vepra_error_t *head = vepra_error_quick_wrap_i(0, nullptr, nullptr, a, "head");
  EXPECT_EQ(take_printed(vepra_error_compose_create(head, a)),
            refusal + "\nError: head \nError: cause ");
  a = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "alone");
  vepra_error_compose(a, a);  // refused quietly: nothing to report through
  EXPECT_EQ(take_printed(a), "Error: alone ");
}

TEST_F(ErrorTest, DupCopiesIntoItsOwnPoolAndSharesLocations) {
  int attachment = 0;
  vepra_error_t *e = vepra_error_create_i(0, 5, 9, "d/e.c", "h", nullptr, "inner");
  vepra_error_set_data(e, &attachment);
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "outer");
  vepra_error_t *d = vepra_error_dup(e);
  ASSERT_NE(d, nullptr);
  EXPECT_NE(d->pool, e->pool);
  EXPECT_NE(d->message, e->message);
  EXPECT_EQ(d->next->file, e->next->file) << "file and function stay shared";
  EXPECT_EQ(d->next->data, &attachment);
  EXPECT_EQ(printed_lines(d), printed_lines(e));
  vepra_error_clear(d);
  EXPECT_EQ(take_printed(e), "Error(5): outer \nError(5): inner [e.c(9), h]");
  EXPECT_EQ(vepra_error_dup(nullptr), nullptr);
}

TEST_F(ErrorTest, WalkVisitsEveryRecordHeadFirst) {
  vepra_error_t *e = vepra_error_create_i(0, 3, 0, nullptr, nullptr, nullptr, "c");
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "b");
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "a");
  std::string seen;
  vepra_error_walk(
      e,
      [](int code, const char *message, const char *, int, const char *, void *user) {
        *static_cast<std::string *>(user) += std::string(message) + std::to_string(code);
        return 1;  // cannot stop the walk
      },
      &seen);
  EXPECT_EQ(seen, "a3b3c3");
  vepra_error_walk(nullptr, nullptr, nullptr);
  vepra_error_clear(e);
}

TEST_F(ErrorTest, TypesAndAttachments) {
  int x = 0, y = 0;
  vepra_error_t *e = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "root");
  vepra_error_set_data(e, &y);
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "middle");
  vepra_error_set_data(e, &x);
  e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "head");
  EXPECT_EQ(vepra_error_get_data(e), nullptr);
  EXPECT_EQ(vepra_error_get_data_first(e), &x);
  EXPECT_EQ(vepra_error_get_data(nullptr), nullptr);
  EXPECT_EQ(vepra_error_get_data_first(nullptr), nullptr);
  vepra_error_set_data(nullptr, &x);
  vepra_error_set_type(e, 1);
  EXPECT_EQ(take_printed(vepra_error_dup(e)), "Warning: head \nError: middle \nError: root ");
  vepra_error_set_type_all(e, 3);
  vepra_error_set_type_all(nullptr, 3);
  EXPECT_EQ(take_printed(e), "Assert: head \nAssert: middle \nAssert: root ");
}

TEST_F(ErrorTest, RegistryHandsOutLowestFreeCode) {
  int a = 0, b = 0, c = 0, d = 0;
  EXPECT_EQ(vepra_error_register(&a, "alpha"), nullptr);
  EXPECT_EQ(vepra_error_register(&b, "beta"), nullptr);
  EXPECT_EQ(vepra_error_register(&c, "gamma"), nullptr);
  EXPECT_EQ(a, 125000);
  EXPECT_EQ(b, 125001);
  EXPECT_EQ(c, 125002);
  vepra_error_t *early = vepra_error_create_i(0, 125001, 0, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(vepra_error_deregister(125001), nullptr);
  EXPECT_EQ(take_printed(vepra_error_dup(early)), "Error(125001): Unregistered error ");
  EXPECT_EQ(vepra_error_register(&d, "delta"), nullptr);
  EXPECT_EQ(d, 125001);
  EXPECT_EQ(take_printed(early), "Error(125001): delta ");
  // Codes outside the registry change nothing.
  EXPECT_EQ(vepra_error_deregister(124999), nullptr);
  EXPECT_EQ(vepra_error_deregister(125003), nullptr);
  EXPECT_EQ(take_printed(vepra_error_create_i(0, 125002, 0, nullptr, nullptr, nullptr, nullptr)),
            "Error(125002): gamma ");
  // Names are not checked for duplicates.
  int e1 = 0;
  vepra_error_register(&e1, "alpha");
  EXPECT_EQ(e1, 125003);
}

TEST_F(ErrorTest, RegisteringANullNameIsRefused) {
  int code = -1;
  EXPECT_EQ(take_printed(vepra_error_register(&code, nullptr)),
            "Error(120020): Cannot register error type. \nError(120020): Assertion failure ");
  EXPECT_EQ(code, -1);
  ASSERT_EQ(vepra_error_register(&code, "first"), nullptr);
  EXPECT_EQ(code, 125000) << "the refused call must not take a slot";
}

// The walk-stopping sentinel is a one-record chain of its own name.
TEST_F(ErrorTest, SentinelIsAOneRecordChain) {
  EXPECT_EQ(take_printed(vepra_error_dup(VepraDLlistStopWalking)),
            "Error: VepraDLlistStopWalking ");
}

// Setting returns the previous handler, and null restores the default.
TEST_F(ErrorTest, MalfunctionHandlerIsReplaceable) {
  EXPECT_EQ(vepra_error_get_malfunction_handler(), recording_handler);
  vepra_error_malfunction_fn mine = [](vepra_error_t *c) noexcept -> vepra_error_t * {
    vepra_error_clear(c);
    return nullptr;
  };
  EXPECT_EQ(vepra_error_set_malfunction_handler(mine), recording_handler);
  EXPECT_EQ(vepra_error_malfunction(vepra::detail::make_error(0, "x")), nullptr);
  EXPECT_EQ(vepra_error_set_malfunction_handler(nullptr), mine);
  EXPECT_EQ(vepra_error_get_malfunction_handler(), previous_);
  EXPECT_EQ(vepra_error_set_malfunction_handler(recording_handler), previous_);
}

TEST_F(ErrorTest, AReturningHandlerNeverLeavesTheCallerWithoutAnError) {
  const std::string oom = "Malfunction: Out of memory: the error could not be recorded. ";
  vepra_error_set_malfunction_handler([](vepra_error_t *c) noexcept -> vepra_error_t * {
    vepra_error_clear(c);
    return nullptr;
  });
  void *p = &p;
  vepra::testing::fail_pool_create_at(1);
  vepra_error_t *e = vepra_mem_malloc(0, &p);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->type, VEPRA_ERROR_TYPE_MALFUNCTION);
  EXPECT_EQ(e->code, 0);
  EXPECT_EQ(e->line, 0);
  EXPECT_EQ(e->next, nullptr);
  EXPECT_EQ(p, &p);
  // Wrapping returns the record unchanged, clearing and setters leave it be.
  EXPECT_EQ(vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "Cannot go on."), e);
  vepra_error_set_type_all(e, 0);
  vepra_error_clear(e);
  EXPECT_EQ(take_printed(e), oom);
  // Composing it into a chain copies it; composing onto it drops the other.
  vepra_error_t *a = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "A");
  EXPECT_EQ(take_printed(vepra_error_compose_create(a, e)), "Error: A \n" + oom);
  a = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "A");
  EXPECT_EQ(vepra_error_compose_create(e, a), e);

  // The matrix's wrapping of a failed inner record used to crash.
  void *m = nullptr;
  vepra::testing::fail_pool_create_at(1);
  EXPECT_EQ(take_printed(vepra_mem_matrix_alloc(&m, 8, 1, 0, 1, 1)), oom);
  vepra::testing::fail_pool_create_at(2);
  EXPECT_EQ(
      take_printed(vepra_error_dup(vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "x"))),
      oom);
}

TEST_F(ErrorTest, AFailedLockIsNeitherUsedNorReleased) {
  int code = -1;
  vepra::testing::fail_lock_at(1);
  const std::string chain = take_printed(vepra_error_register(&code, "lost"));
  EXPECT_NE(chain.find("Error: Cannot register error type. "), std::string::npos) << chain;
  EXPECT_EQ(code, -1);
  ASSERT_EQ(g_malfunctions.size(), 1u);
  // A lock that was not taken is not released: held here, the mutex stays
  // held after a failed lock inside the library.
  ASSERT_EQ(apr_thread_mutex_lock(vepra::detail::g_error.mutex), APR_SUCCESS);
  vepra::testing::fail_lock_at(1);
  EXPECT_EQ(vepra_error_set_malfunction_handler(recording_handler), recording_handler);
  EXPECT_TRUE(APR_STATUS_IS_EBUSY(apr_thread_mutex_trylock(vepra::detail::g_error.mutex)));
  ASSERT_EQ(apr_thread_mutex_unlock(vepra::detail::g_error.mutex), APR_SUCCESS);
  ASSERT_EQ(vepra_error_register(&code, "kept"), nullptr);
  EXPECT_EQ(code, 125000);
  EXPECT_EQ(vepra_error_deregister(code), nullptr);
}

TEST_F(ErrorTest, PoolFailureSendsTheFatalChainToTheHandler) {
  vepra::testing::fail_pool_create_at(1);
  vepra_error_t *e = vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, "lost");
  ASSERT_EQ(g_malfunctions.size(), 1u);
  const std::string expected =
      "Malfunction: Impossible to continue. Aborting... \n"
      "Error: Cannot create error. \n"
      "Error: " +
      apr_text(APR_ENOMEM) + " ";
  EXPECT_EQ(g_malfunctions[0], expected);
  // The handler returned, so the caller gets the fatal chain as its error.
  EXPECT_EQ(take_printed(e), expected);

  vepra_error_t *src = vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "src");
  vepra::testing::fail_pool_create_at(1);
  vepra_error_t *d = vepra_error_dup(src);
  ASSERT_EQ(g_malfunctions.size(), 2u);
  EXPECT_NE(g_malfunctions[1].find("Error: Cannot duplicate error. "), std::string::npos);
  vepra_error_clear(d);
  vepra_error_clear(src);
}

TEST(ErrorDeathTest, DefaultHandlerPrintsAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        vepra_initialize();
        vepra::testing::fail_pool_create_at(1);
        vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, "x");
      },
      "Malfunction: Impossible to continue. Aborting... \n"
      "Error: Cannot create error. \nError: .*");
}
