# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# If a probe of extconf.rb finds nothing, the extension is built without the function and works all the same: only this
# test notices a misspelled name.
class RubyCompatTest < ExtTest
  EXTCONF = File.expand_path("../../ext/extconf.rb", __dir__)

  # The probes, and whether the extension must import the function here: the table in ext/ruby_compat.h. Ruby 2.7 has
  # rb_hash_bulk_insert, which is called only together with rb_enc_interned_str.
  PROBES = {
    "rb_gc_adjust_memory_usage" => RUBY_VERSION >= "2.4",
    "rb_hash_bulk_insert" => RUBY_VERSION >= "3.0",
    "rb_enc_interned_str" => RUBY_VERSION >= "3.0",
    "rb_ext_ractor_safe" => RUBY_VERSION >= "3.0",
    "pthread_getattr_np" => RUBY_VERSION < "2.7"
  }.freeze

  def test_every_probe_is_listed
    assert_equal PROBES.keys.sort, File.read(EXTCONF).scan(/have_func\("(\w+)"/).flatten.sort
  end

  # Reads the loaded library itself: a Makefile may be gone, or belong to another build.
  def test_functions_of_this_interpreter_are_imported
    names = File.binread(RubyProcess::EXTENSION).scan(/\w+(?=\0)/)
    PROBES.each { |name, needed| assert_equal needed, names.include?(name), "#{name} in #{RubyProcess::EXTENSION}" }
  end
end
