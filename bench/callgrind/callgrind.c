/* Lets a Ruby program count its instructions under callgrind, which otherwise counts whole processes. */
#include <ruby.h>
#include <valgrind/callgrind.h>

/* Callgrind.dump { ... }: callgrind writes a file of what the block took. Does nothing else without callgrind. */
static VALUE dump(VALUE self) {
  (void)self;
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  rb_yield(Qnil);
  CALLGRIND_DUMP_STATS;
  CALLGRIND_STOP_INSTRUMENTATION;
  return Qnil;
}

void Init_callgrind(void) {
  rb_define_module_function(rb_define_module("Callgrind"), "dump", dump, 0);
}
