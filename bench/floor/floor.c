/*
 * What any codec has to do at least, without a wire format: walk a tree and copy the bytes of its strings, or
 * build the same tree again with the interpreter's cheapest calls. A codec cannot be faster than this; how far
 * it is above says what its own work costs.
 */
#include <ruby.h>
#include <ruby/encoding.h>
#include <string.h>

static char* out;
static size_t room, used;

static void put(const void* bytes, size_t n) {
  if (used + n > room) {
    room = (used + n) * 2;
    out = xrealloc(out, room);
  }
  memcpy(out + used, bytes, n);
  used += n;
}

static void walk(VALUE obj);

static int walk_entry(VALUE key, VALUE value, VALUE arg) {
  (void)arg;
  walk(key);
  walk(value);
  return ST_CONTINUE;
}

static void walk(VALUE obj) {
  switch (rb_type(obj)) {
    case T_ARRAY: {
      long i, n = RARRAY_LEN(obj);
      for (i = 0; i < n; ++i) walk(RARRAY_AREF(obj, i));
      break;
    }
    case T_HASH: rb_hash_foreach(obj, walk_entry, 0); break;
    case T_STRING: put(RSTRING_PTR(obj), RSTRING_LEN(obj)); break;
    case T_FLOAT: {
      double d = RFLOAT_VALUE(obj);
      put(&d, sizeof d);
      break;
    }
    case T_FIXNUM: {
      long n = FIX2LONG(obj);
      put(&n, 4);
      break;
    }
    default: put("", 1);
  }
}

/* Floor.walk(tree) -> bytes copied */
static VALUE floor_walk(VALUE self, VALUE tree) {
  (void)self;
  used = 0;
  walk(tree);
  return SIZET2NUM(used);
}

static VALUE build(VALUE model);

static int build_entry(VALUE key, VALUE value, VALUE hash) {
  VALUE k = key;
  if (RB_TYPE_P(key, T_STRING)) k = rb_enc_interned_str(RSTRING_PTR(key), RSTRING_LEN(key), rb_utf8_encoding());
  rb_hash_aset(hash, k, build(value));
  return ST_CONTINUE;
}

static VALUE build(VALUE model) {
  switch (rb_type(model)) {
    case T_ARRAY: {
      long i, n = RARRAY_LEN(model);
      VALUE array = rb_ary_new_capa(n);
      for (i = 0; i < n; ++i) rb_ary_push(array, build(RARRAY_AREF(model, i)));
      return array;
    }
    case T_HASH: {
      VALUE hash = rb_hash_new();
      rb_hash_foreach(model, build_entry, hash);
      return hash;
    }
    case T_STRING: return rb_enc_str_new(RSTRING_PTR(model), RSTRING_LEN(model), rb_utf8_encoding());
    case T_FLOAT: return DBL2NUM(RFLOAT_VALUE(model));
    default: return model;
  }
}

/* Floor.build(tree) -> an equal tree; keys are looked up by their bytes, as in a decoder, which receives bytes */
static VALUE floor_build(VALUE self, VALUE tree) {
  (void)self;
  return build(tree);
}

void Init_floor(void) {
  VALUE module = rb_define_module("Floor");
  rb_define_module_function(module, "walk", floor_walk, 1);
  rb_define_module_function(module, "build", floor_build, 1);
}
