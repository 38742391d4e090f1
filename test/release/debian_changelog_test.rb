# frozen_string_literal: true

# debian/changelog has the versions of CHANGELOG.md, and its last one is that of the gem.

require "minitest/autorun"

require_relative "../../lib/vorn_rpc/version"

class DebianChangelogTest < Minitest::Test
  ROOT = File.expand_path("../..", __dir__)

  def test_the_last_entry_is_of_the_version
    assert_equal VORN::VERSION, packaged.first
  end

  def test_every_version_of_the_change_log_was_packaged
    headings = File.read(File.join(ROOT, "CHANGELOG.md")).scan(/^## (.+)$/).flatten
    # What is not released yet is packaged with the version that there is.
    versions = headings.map { |heading| heading == "Next" ? VORN::VERSION : heading }
    assert_equal versions.uniq, packaged.uniq
  end

  private

  # The versions without Debian's revision, the last one first.
  def packaged
    File.read(File.join(ROOT, "debian/changelog")).scan(/^vorn-rpc \((.+)-\d+\) /).flatten
  end
end
