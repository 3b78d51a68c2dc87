// Default sanitizer options of every test binary, so that running a test
// directly behaves as under CTest: hostile sizes must come back from the
// allocator as null (and then as error records) instead of stopping the
// process.
extern "C" {
const char *__asan_default_options() { return "allocator_may_return_null=1:detect_leaks=1"; }
const char *__tsan_default_options() { return "allocator_may_return_null=1:halt_on_error=1"; }
const char *__ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }
}
