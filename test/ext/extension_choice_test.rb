# frozen_string_literal: true

require_relative "helper"
require "fileutils"
require "open3"
require "rbconfig"
require "tmpdir"

# Which of a gem's builds is loaded. bin/test gem-native installs the real gem.
class ExtensionChoiceTest < Minitest::Test
  LIB = File.expand_path("../../lib", __dir__)
  OWN = RUBY_VERSION[/\A\d+\.\d+/]

  # A gem's lib/ with builds for these Rubies, each of which says whose it is, and another where any Ruby finds it.
  def setup
    @lib = Dir.mktmpdir("vorn-builds")
    FileUtils.mkdir(File.join(@lib, "vorn_rpc"))
    %w[vorn_rpc.rb vorn_rpc/version.rb vorn_rpc/extension.rb].each do |name|
      FileUtils.cp(File.join(LIB, name), File.join(@lib, name))
    end
    File.write(File.join(@lib, "vorn_rpc_ext.rb"), "puts 'compiled here'")
  end

  def teardown
    FileUtils.remove_entry(@lib)
  end

  def test_a_gem_of_sources_loads_what_was_compiled
    assert_equal "compiled here\n", load_gem
  end

  def test_a_platform_gem_loads_the_build_for_this_ruby
    builds_for("2.1", OWN, "9.10")
    assert_equal "built for #{OWN}\n", load_gem
  end

  def test_a_platform_gem_without_a_build_for_this_ruby_says_what_helps
    builds_for("9.10", "2.1", "9.9")
    message = "no build for Ruby #{OWN} in this gem, which has 2.1, 9.9, 9.10; " \
              "install the source gem: gem install vorn_rpc --platform ruby"
    assert_equal "#{message}\n", load_gem("rescue LoadError => e; puts e.message")
  end

  # Its shared objects are of another interpreter's interface.
  def test_another_interpreter_of_the_same_version_gets_no_build
    builds_for(OWN)
    renamed = "Object.send(:remove_const, :RUBY_ENGINE); RUBY_ENGINE = 'other'"
    out = load_gem("rescue LoadError => e; puts e.message", renamed)
    assert_equal "no build for Ruby other #{RUBY_VERSION} in this gem", out[/[^,]*/]
  end

  private

  def builds_for(*rubies)
    rubies.each do |ruby|
      FileUtils.mkdir(File.join(@lib, "vorn_rpc", ruby))
      File.write(File.join(@lib, "vorn_rpc", ruby, "vorn_rpc_ext.rb"), "puts 'built for #{ruby}'")
    end
  end

  def load_gem(rescued = "", before = "")
    code = "#{before}; begin; require 'vorn_rpc'; #{rescued}; end"
    out, status = Open3.capture2e({ "RUBYLIB" => nil }, RbConfig.ruby, "-W", "-I#{@lib}", "-e", code)
    assert_predicate status, :success?, out
    out
  end
end
