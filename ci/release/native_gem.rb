# frozen_string_literal: true

# Packs the gem for a platform in the current folder, whose lib/vorn_rpc/X.Y/ has the build for each Ruby X.Y.
#
# usage: ruby ci/release/native_gem.rb PLATFORM

require "rubygems/package"

spec = Gem::Specification.load("vorn_rpc.gemspec")
builds = Dir["lib/vorn_rpc/*.*/*.so"].sort
rubies = builds.map { |path| Gem::Version.new(File.basename(File.dirname(path))) }.uniq.sort
abort "native_gem: #{builds.size} builds for #{rubies.size} Rubies" unless rubies.any? && builds.size == 2 * rubies.size
spec.platform = Gem::Platform.new(ARGV.fetch(0))
spec.files += builds
# Nothing is compiled. What lies between and has no build is refused when it is loaded (lib/vorn_rpc/extension.rb).
spec.extensions = []
spec.required_ruby_version = [">= #{rubies.first}", "< #{Gem::Version.new("#{rubies.last}.0").bump}.dev"]
Gem::Package.build(spec)
