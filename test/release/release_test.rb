# frozen_string_literal: true

# bin/release, in a small repository of its own: what it refuses, that it then leaves nothing behind, and what it
# writes. bin/package is another there, which makes a small gem, Debian packages and a site in no time. bin/test
# reproducible builds the real ones.

require "digest"
require "fileutils"
require "json"
require "minitest/autorun"
require "open3"
require "rbconfig"
require "tmpdir"

class ReleaseTest < Minitest::Test
  ROOT = File.expand_path("../..", __dir__)
  COPIED = %w[LICENSE CHANGELOG.md ci/lib.sh ci/roots.sh ci/release/sbom.rb bin/release lib/vorn_rpc/version.rb].freeze
  VERSION = "7.8.9"
  PACKAGE = <<'END'
#!/usr/bin/env bash
set -euo pipefail
build=$VORN_BUILD_DIR
mkdir -p "$build/package" "$build/site/deep"
[ "$*" != "$(cat fails 2>/dev/null)" ] || { echo "the compiler says no"; exit 1; }
case "$*" in
  gem*)
    case $* in
      gem) name=small-7.8.9.gem special='gem.extensions = ["ext/extconf.rb"]' ;;
      *amd64) name=small-7.8.9-x86_64-linux.gem special='gem.platform = "x86_64-linux"' ;;
      *arm64) name=small-7.8.9-aarch64-linux.gem special='gem.platform = "aarch64-linux"' ;;
    esac
    cat >small.gemspec <<GEM
Gem::Specification.new do |gem|
  gem.name = "small"
  gem.version = "7.8.9"
  gem.summary = "small"
  gem.authors = ["us"]
  gem.files = ["LICENSE"]
  $special
  gem.required_ruby_version = ">= 2.2"
end
GEM
    mkdir -p ext && touch ext/extconf.rb
    ruby -S gem build small.gemspec --force -o "$build/package/$name" 2>&1
    echo "$build/package/$name" ;;
  deb)
    mkdir -p deb/DEBIAN "$build/deb"
    for name in small small-tools; do
      depends='libc6 (>= 2.1), bash | dash'
      [ $name = small ] || depends='small (= 7.8.9)'
      printf '%s\n' "Package: $name" 'Version: 7.8.9' 'Architecture: all' 'Maintainer: us <us@us.invalid>' \
        "Depends: $depends" 'Description: small' >deb/DEBIAN/control
      dpkg-deb --root-owner-group --build deb "$build/deb/$name.deb" >&2
    done
    echo source >"$build/deb/small.dsc"
    echo "$build/deb" ;;
  site)
    ! [ -e ignored ] || { echo "an ignored file is there"; exit 1; }
    echo page >"$build/site/index.html"
    echo page >"$build/site/deep/page.html"
    echo "$build/site" ;;
esac
END

  # The command and what it uses, as committed and tagged for VERSION.
  def setup
    @dir = File.realpath(Dir.mktmpdir("vorn-release"))
    COPIED.each do |path|
      FileUtils.mkdir_p(File.dirname(path_of(path)))
      FileUtils.cp(File.join(ROOT, path), path_of(path))
    end
    write("lib/vorn_rpc/version.rb", "module VORN\n  VERSION = \"#{VERSION}\"\nend\n")
    write("CHANGELOG.md", "# Changes\n\n## #{VERSION}\n\n- All.\n\n## 1.0.0\n")
    write("bin/package", PACKAGE)
    write("bin/setup", "#!/bin/sh\necho bash coreutils libboost-dev libfmt-dev\n")
    FileUtils.chmod(0o755, %w[bin/package bin/setup].map { |path| path_of(path) })
    write(".gitignore", "/build/\n/build-roots/\n/ignored\n")
    FileUtils.mkdir_p(path_of("build-roots/logs"))
    write_root("bullseye", "11.1", "amd64", "g++:amd64", "make:amd64")
    write_root("arm64-bullseye", "11.2", "arm64", "g++-aarch64-linux-gnu:amd64", "make:amd64", "libc6:amd64")
    git("init", "-q")
    commit
    git("tag", "v#{VERSION}")
  end

  def teardown
    FileUtils.remove_entry(@dir)
  end

  def test_a_release_has_every_artefact_and_sums_that_hold
    write("ignored", "is not in the clone")
    folder = release
    assert_equal path_of("build/release/#{VERSION}"), folder
    names = %w[SHA256SUMS small-7.8.9-aarch64-linux.gem small-7.8.9-x86_64-linux.gem small-7.8.9.gem small-tools.deb
               small.deb small.dsc vorn_rpc-7.8.9.spdx.json vorn_rpc-site-7.8.9.tar.gz]
    assert_equal names, Dir.children(folder).sort
    assert_equal [VERSION], Dir.children(File.dirname(folder))
    sums = File.readlines(File.join(folder, "SHA256SUMS"), chomp: true).map { |line| line.split("  ") }
    assert_equal names.drop(1), sums.map(&:last)
    sums.each { |sum, name| assert_equal Digest::SHA256.file(File.join(folder, name)).hexdigest, sum }
    assert_equal "", git("status", "--porcelain")
    listed, = Open3.capture2("tar", "-tzf", File.join(folder, "vorn_rpc-site-7.8.9.tar.gz"))
    assert_includes listed.lines(chomp: true), "vorn_rpc-site-7.8.9/deep/page.html"
  end

  def test_the_same_commit_makes_the_same_bytes
    first = contents(release)
    FileUtils.rm_rf(path_of("build"))
    sleep 1.1 # dates have seconds
    assert_equal first, contents(release("TZ" => "Asia/Kathmandu", "SOURCE_DATE_EPOCH" => "1"))
  end

  def test_the_sbom_names_files_and_what_they_need
    folder = release
    sbom = JSON.parse(File.read(File.join(folder, "vorn_rpc-7.8.9.spdx.json")))
    assert_equal ["SPDX-2.3", "CC0-1.0"], sbom.values_at("spdxVersion", "dataLicense")
    assert_equal git("log", "-1", "--format=%cd", "--date=format-local:%Y-%m-%dT%H:%M:%SZ").strip,
                 sbom["creationInfo"]["created"]
    files = sbom["files"].map { |file| [file["fileName"], file["SPDXID"]] }.to_h
    assert_equal %w[small-7.8.9-aarch64-linux.gem small-7.8.9-x86_64-linux.gem small-7.8.9.gem small-tools.deb
                    small.deb small.dsc vorn_rpc-site-7.8.9.tar.gz],
                 files.keys.map { |name| name.sub(%r{\A\./}, "") }
    sbom["files"].each do |file|
      sums = file["checksums"].map { |sum| [sum["algorithm"], sum["checksumValue"]] }
      path = File.join(folder, file["fileName"])
      assert_equal [["SHA1", Digest::SHA1.file(path).hexdigest], ["SHA256", Digest::SHA256.file(path).hexdigest]], sums
    end
    # The roots' versions begin with 11.
    packages = sbom["packages"].reject { |package| package["versionInfo"].start_with?("11.") }
                               .map { |package| [package["name"], package] }.to_h
    assert_equal [VERSION, "MIT"], packages["vorn_rpc"].values_at("versionInfo", "licenseDeclared")
    assert_equal installed("libc6"), packages["libc6"]["versionInfo"]
    relations = sbom["relationships"].map do |relation|
      relation.values_at("spdxElementId", "relationshipType", "relatedSpdxElement", "comment")
    end
    id = ->(name) { packages.fetch(name)["SPDXID"] }
    assert_includes relations, ["SPDXRef-DOCUMENT", "DESCRIBES", id["vorn_rpc"], nil]
    assert_includes relations, [id["bash"], "RUNTIME_DEPENDENCY_OF", files["./small.deb"], "bash | dash"]
    assert_includes relations, [files["./small.deb"], "RUNTIME_DEPENDENCY_OF", files["./small-tools.deb"],
                                "small (= 7.8.9)"]
    linked = relations.select { |_, relation, _, _| relation == "STATIC_LINK" }.map { |one, _, other, _| [one, other] }
    assert_includes linked, [files["./small.deb"], id["libboost-dev"]]
    refute_includes linked, [files["./small.deb"], id["libfmt-dev"]]
    assert_includes linked, [files["./small-tools.deb"], id["libfmt-dev"]]
    assert_includes relations, [id["ruby"], "RUNTIME_DEPENDENCY_OF", files["./small-7.8.9.gem"], "Ruby >= 2.2"]
    compiler = [id["g++"], "DEPENDENCY_OF", files["./small-7.8.9.gem"], "compiles the extension at installation"]
    assert_includes relations, compiler
    { "x86_64" => ["g++", "11.1"], "aarch64" => ["g++-aarch64-linux-gnu", "11.2"] }.each do |cpu, (cross, version)|
      gem = files["./small-7.8.9-#{cpu}-linux.gem"]
      there = ->(name) { "SPDXRef-Package-#{name.gsub('+', 'plus')}-#{version}" }
      later = "this version or a later one"
      needed = [[there[cross], "BUILD_TOOL_OF", gem, nil], [there["make"], "BUILD_TOOL_OF", gem, nil],
                [gem, "STATIC_LINK", there["libboost-dev"], nil],
                [there["libc6"], "RUNTIME_DEPENDENCY_OF", gem, later],
                [there["libstdc++6"], "RUNTIME_DEPENDENCY_OF", gem, later],
                [id["ruby"], "RUNTIME_DEPENDENCY_OF", gem, "Ruby >= 2.2"]]
      found = relations.select { |relation| relation.include?(gem) && relation[1] != "CONTAINS" }
      assert_equal needed.sort_by(&:to_s), found.sort_by(&:to_s)
    end
    assert_includes relations, [id["coreutils"], "BUILD_DEPENDENCY_OF", id["vorn_rpc"], nil]
    ids = sbom["packages"].map { |package| package["SPDXID"] } + files.values + ["SPDXRef-DOCUMENT"]
    assert_equal ids.uniq, ids
    assert_empty relations.flat_map { |one, _, other| [one, other] } - ids
  end

  def test_refuses_another_version_in_the_change_log
    write("CHANGELOG.md", "# Changes\n\n## Next\n\n## #{VERSION}\n")
    commit
    git("tag", "-f", "v#{VERSION}")
    refuse "CHANGELOG.md begins with 'Next', but the version is 7.8.9 (lib/vorn_rpc/version.rb)"
  end

  def test_refuses_another_version_in_the_code
    write("lib/vorn_rpc/version.rb", "module VORN\n  VERSION = \"7.8.10\"\nend\n")
    commit
    git("tag", "v7.8.10")
    refuse "CHANGELOG.md begins with '7.8.9', but the version is 7.8.10"
  end

  def test_refuses_a_missing_tag
    git("tag", "-d", "v#{VERSION}")
    git("tag", "v#{VERSION}0")
    refuse "HEAD has no tag v7.8.9\n"
  end

  def test_refuses_a_tag_on_another_commit
    write("more", "")
    commit
    refuse "HEAD has no tag v7.8.9: another commit has it"
  end

  def test_refuses_changed_files
    write("LICENSE", "none")
    refuse "the checkout has changes; commit or remove them:\n M LICENSE"
  end

  def test_refuses_files_that_git_does_not_know
    write("lib/stray.rb", "")
    refuse "?? lib/stray.rb"
  end

  def test_refuses_a_second_release_and_keeps_the_first
    folder = release
    before = contents(folder)
    out, status = run_release
    refute_predicate status, :success?
    assert_includes out, "#{folder} is there already"
    assert_equal before, contents(folder)
    assert_equal [VERSION], Dir.children(File.dirname(folder))
  end

  def test_each_failing_step_leaves_nothing_behind
    ["gem", "gem native amd64", "gem native arm64", "deb", "site"].each do |artefact|
      write("fails", artefact)
      commit
      git("tag", "-f", "v#{VERSION}")
      refuse "the compiler says no\nrelease: cannot build the #{artefact} of 7.8.9"
    end
    FileUtils.rm(path_of("fails"))
    # The SBOM comes after all artefacts.
    write("bin/setup", "#!/bin/sh\necho no-such-package\n")
    commit
    git("tag", "-f", "v#{VERSION}")
    refuse "sbom: no-such-package is not installed"
  end

  def test_an_interrupted_release_leaves_nothing_behind
    write("bin/package", "#!/bin/sh\necho begun >&2\necho $$ >\"#{@dir}/build/begun\"\nexec sleep 60\n")
    commit
    git("tag", "-f", "v#{VERSION}")
    Open3.popen2e(environment, path_of("bin/release"), pgroup: true) do |input, output, process|
      input.close
      sleep 0.05 until File.size?(path_of("build/begun")) || !process.alive?
      Process.kill(:TERM, -process.pid)
      refute_predicate process.value, :success?, output.read
    end
    assert_equal ["build/begun"], everything.grep(%r{\Abuild/.*\w})
  end

  private

  def path_of(name)
    File.join(@dir, name)
  end

  def write(name, text)
    FileUtils.mkdir_p(File.dirname(path_of(name)))
    File.write(path_of(name), text)
  end

  # A Debian root, as dpkg-query sees it: with libraries of the architecture, and these packages.
  def write_root(name, version, architecture, *packages)
    packages += %w[libboost-dev libc6 libstdc++6].map { |package| "#{package}:#{architecture}" }
    entries = packages.map do |package|
      "Package: %s\nArchitecture: %s\nMulti-Arch: same\n" % package.split(":") +
        "Status: install ok unpacked\nVersion: #{version}\nMaintainer: us <us@us.invalid>\nDescription: small\n\n"
    end
    write("build-roots/#{name}/var/lib/dpkg/status", entries.join)
    FileUtils.mkdir_p(%w[info updates].map { |folder| path_of("build-roots/#{name}/var/lib/dpkg/#{folder}") })
  end

  def git(*arguments)
    identity = %w[-c user.name=us -c user.email=us@us.invalid -c commit.gpgsign=false -c tag.gpgsign=false]
    out, status = Open3.capture2e({ "TZ" => "UTC" }, "git", "-C", @dir, *identity, *arguments)
    assert_predicate status, :success?, out
    out
  end

  def commit
    git("add", "-A")
    git("commit", "-q", "-m", "A state")
  end

  def environment(more = {})
    { "VORN_BUILD_DIR" => nil, "VORN_ROOTS_DIR" => path_of("build-roots"), "RUBY" => RbConfig.ruby,
      "RUBYOPT" => nil, "RUBYLIB" => nil }.merge(more)
  end

  def run_release(more = {})
    Open3.capture2e(environment(more), path_of("bin/release"))
  end

  # The folder of a release that has to succeed.
  def release(more = {})
    out, status = run_release(more)
    assert_predicate status, :success?, out
    out.lines.last.chomp
  end

  # Whoever refuses says so, and the checkout is as it was.
  def refuse(message)
    before = everything
    out, status = run_release
    assert_equal 1, status.exitstatus, out
    assert_includes out, message
    assert_equal before, everything
  end

  def everything
    Dir.chdir(@dir) { Dir.glob("**/*", File::FNM_DOTMATCH).reject { |path| path.start_with?(".git/") }.sort }
  end

  def contents(folder)
    Dir.children(folder).sort.map { |name| [name, Digest::SHA256.file(File.join(folder, name)).hexdigest] }
  end

  def installed(package)
    out, = Open3.capture2("dpkg-query", "-W", "-f", "${Version}", package)
    refute_empty out
    out
  end
end
