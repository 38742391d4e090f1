# frozen_string_literal: true

# Writes what a release consists of and depends on, as SPDX 2.3 in JSON.
#
# usage: ruby ci/release/sbom.rb FOLDER VERSION ROOTS PACKAGE... >FILE
#
# FOLDER has what is released: its files are listed with their checksums. The PACKAGEs are Debian's that it was built
# with; their versions are those of this machine. ROOTS has the Debian roots in which the native gems were compiled.
# What a Debian package needs at run time is read from the package; it may be another of the files.
#
# SOURCE_DATE_EPOCH  the date of the document

require "digest"
require "json"
require "open3"
require "time"

# Writes the document of one release.
class Sbom
  LICENCES = { # of what runs with the release, or is compiled into it; as in /usr/share/doc/*/copyright
    "libboost-dev" => "BSL-1.0", "libc6" => "LGPL-2.1-or-later", "libcli11-dev" => "BSD-3-Clause",
    "libfmt-dev" => "MIT",
    "libgcc-s1" => "GPL-3.0-or-later WITH GCC-exception-3.1", "libstdc++6" => "GPL-3.0-or-later WITH GCC-exception-3.1",
    "nlohmann-json3-dev" => "MIT", "ruby" => "Ruby OR BSD-2-Clause"
  }.freeze
  # Libraries of headers alone: their code is in what is built, that of the last three in the tools.
  COMPILED_IN = %w[libboost-dev].freeze
  COMPILED_INTO_TOOLS = %w[libboost-dev libcli11-dev libfmt-dev nlohmann-json3-dev].freeze
  # Where the gem for a platform was compiled, and with what; as in gem_roots.sh.
  NATIVE = {
    "x86_64-linux" => { root: "bullseye", compiler: "g++", architecture: "amd64" },
    "aarch64-linux" => { root: "arm64-bullseye", compiler: "g++-aarch64-linux-gnu", architecture: "arm64" }
  }.freeze
  ROOT = "SPDXRef-Package-vorn-rpc"

  def initialize(folder, version, roots, build_packages)
    @folder = folder
    @version = version
    @roots = roots
    @build_packages = build_packages
    @packages = {}
    @relations = []
    @date = Time.at(Integer(ENV.fetch("SOURCE_DATE_EPOCH"))).utc.iso8601
  end

  def document
    @files = Dir.children(@folder).sort.map { |name| file(name) }
    abort "sbom: no files in #{@folder}" if @files.empty?
    relate("SPDXRef-DOCUMENT", "DESCRIBES", ROOT)
    @files.each { |file| relate(ROOT, "CONTAINS", file["SPDXID"]) }
    @build_packages.uniq.sort.each { |name| relate(debian(name), "BUILD_DEPENDENCY_OF", ROOT) }
    @files.each { |file| needs_of(file) }
    {
      "spdxVersion" => "SPDX-2.3", "dataLicense" => "CC0-1.0", "SPDXID" => "SPDXRef-DOCUMENT",
      "name" => "vorn_rpc-#{@version}",
      "documentNamespace" => "https://vorn-rpc.invalid/spdx/vorn_rpc-#{@version}-#{code}",
      "creationInfo" => { "created" => @date, "creators" => ["Organization: the Vorn RPC authors", "Tool: sbom.rb"] },
      "packages" => [project] + @packages.values.uniq, "files" => @files, "relationships" => @relations
    }
  end

  private

  def file(name)
    path = File.join(@folder, name)
    checksums = [Digest::SHA1, Digest::SHA256].map do |digest|
      { "algorithm" => digest.name[/\w+\z/], "checksumValue" => digest.file(path).hexdigest }
    end
    # With our own licence is what compilers and generators of pages put in.
    { "SPDXID" => id("File", name), "fileName" => "./#{name}",
      "fileTypes" => [name.end_with?(".dsc") ? "TEXT" : "ARCHIVE"],
      "checksums" => checksums,
      "licenseConcluded" => "NOASSERTION", "licenseInfoInFiles" => ["MIT"], "copyrightText" => "NOASSERTION" }
  end

  # What SPDX calls the package verification code: it says which files were described.
  def code
    Digest::SHA1.hexdigest(@files.map { |file| file["checksums"][0]["checksumValue"] }.sort.join)
  end

  def project
    { "SPDXID" => ROOT, "name" => "vorn_rpc", "versionInfo" => @version,
      "supplier" => "Organization: the Vorn RPC authors", "downloadLocation" => "NOASSERTION",
      "filesAnalyzed" => true, "packageVerificationCode" => { "packageVerificationCodeValue" => code },
      "licenseInfoFromFiles" => ["MIT"], "licenseConcluded" => "MIT", "licenseDeclared" => "MIT",
      "copyrightText" => File.read("LICENSE")[/^Copyright.*/] || "NOASSERTION" }
  end

  # The id of a package of Debian's, or of a package:architecture, as installed in the root.
  def debian(name, root = "/")
    @packages[[name, root]] ||= begin
      database = File.join(root, "var/lib/dpkg")
      out, status = Open3.capture2("dpkg-query", "--admindir=#{database}", "-W", "-f", "${Version}", name)
      abort "sbom: #{name} is not installed in #{root}" unless status.success? && !out.empty?
      dependency(name[/\A[^:]+/], out)
    end
    @packages[[name, root]]["SPDXID"]
  end

  def dependency(name, version)
    purl = "pkg:deb/debian/#{name.gsub('+', '%2B')}@#{version.gsub('+', '%2B').gsub(':', '%3A')}"
    { "SPDXID" => id("Package", "#{name}-#{version}"), "name" => name, "versionInfo" => version,
      "downloadLocation" => "NOASSERTION", "filesAnalyzed" => false, "copyrightText" => "NOASSERTION",
      "licenseConcluded" => "NOASSERTION", "licenseDeclared" => LICENCES.fetch(name, "NOASSERTION"),
      "externalRefs" => [{ "referenceCategory" => "PACKAGE-MANAGER", "referenceType" => "purl",
                           "referenceLocator" => purl }] }
  end

  # What a file needs where it is used.
  def needs_of(file)
    path = File.join(@folder, file["fileName"])
    case path
    when /\.deb\z/
      field(path, "Depends").split(/\s*,\s*/).each do |need|
        name = need[/\A[^\s(:|]+/]
        relate(ours[name] || debian(name), "RUNTIME_DEPENDENCY_OF", file["SPDXID"], need)
      end
      compiled_in = field(path, "Package").end_with?("-tools") ? COMPILED_INTO_TOOLS : COMPILED_IN
      (compiled_in & @build_packages).each { |name| relate(file["SPDXID"], "STATIC_LINK", debian(name)) }
    when /\.gem\z/
      spec = Gem::Package.new(path).spec
      relate(debian("ruby"), "RUNTIME_DEPENDENCY_OF", file["SPDXID"], "Ruby #{spec.required_ruby_version}")
      if spec.platform == "ruby"
        %w[g++ make libboost-dev].each do |name|
          relate(debian(name), "DEPENDENCY_OF", file["SPDXID"], "compiles the extension at installation")
        end
      else
        native_needs(file["SPDXID"], **NATIVE.fetch(spec.platform.to_s))
      end
    end
  end

  def native_needs(gem, root:, compiler:, architecture:)
    root = File.join(@roots, root)
    [compiler, "make"].each { |name| relate(debian(name, root), "BUILD_TOOL_OF", gem) }
    relate(gem, "STATIC_LINK", debian("libboost-dev:#{architecture}", root))
    %w[libc6 libstdc++6].each do |name|
      needed = debian("#{name}:#{architecture}", root)
      relate(needed, "RUNTIME_DEPENDENCY_OF", gem, "this version or a later one")
    end
  end

  def field(path, name)
    value, status = Open3.capture2("dpkg-deb", "-f", path, name)
    abort "sbom: cannot read #{path}" unless status.success?
    value.strip
  end

  # The ids of those of the files that are Debian packages, by the packages' names.
  def ours
    @ours ||= @files.select { |file| file["fileName"].end_with?(".deb") }.map do |file|
      [field(File.join(@folder, file["fileName"]), "Package"), file["SPDXID"]]
    end.to_h
  end

  def relate(one, relation, other, comment = nil)
    @relations << { "spdxElementId" => one, "relationshipType" => relation, "relatedSpdxElement" => other,
                    "comment" => comment }.compact
  end

  def id(kind, name)
    "SPDXRef-#{kind}-#{name.gsub('+', 'plus').gsub(/[^A-Za-z0-9.]/, '-')}"
  end
end

require "rubygems/package"
folder, version, roots, *packages = ARGV
abort "usage: sbom.rb FOLDER VERSION ROOTS PACKAGE..." if packages.empty?
puts JSON.pretty_generate(Sbom.new(folder, version, roots, packages).document)
