// Short stacks and a small quarantine: more inputs a second, in less memory.
extern "C" const char *__asan_default_options();

extern "C" const char *__asan_default_options() {
  return "quarantine_size_mb=32:malloc_context_size=6:detect_stack_use_after_return=1";
}
