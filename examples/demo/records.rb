# frozen_string_literal: true

# Real records of this machine, as values that a message can carry: the installed packages, and files.
require "vorn_rpc"

module Records
  STATUS = "/var/lib/dpkg/status"
  LISTS = "/var/lib/dpkg/info/*.md5sums"
  ELSEWHERE = ["/usr/share/doc", "/etc"]

  # Up to `count` records: all packages first, then files.
  def self.find(count)
    found = []
    [packages, packaged_files, other_files].each do |source|
      source.each do |record|
        found << record
        return found if found.size == count
      end
    end
    found
  end

  # A single value in a file needs no frame: it ends where the file ends.
  def self.save(records, file)
    File.binwrite(file, (VORN::PROTO::PacketBuf.new << records).to_str)
  end

  def self.load(file)
    buf = VORN::PROTO::PacketBuf.new.write_raw(File.binread(file))
    buf.preserve_symbols_on_extract = true
    buf.seek_payload_start.extract_object
  end

  def self.packages
    return [] unless File.readable?(STATUS)
    File.foreach(STATUS, "\n\n", encoding: "UTF-8").lazy.map { |paragraph| package(fields_of(paragraph)) }
  end

  # "Name: value" lines; a line that starts with a blank continues the previous one.
  def self.fields_of(paragraph)
    paragraph.strip.gsub(/\n[ \t]/, "\0").lines.each_with_object({}) do |line, fields|
      name, value = line.chomp.split(": ", 2)
      fields[name.chomp(":")] = (value || "").tr("\0", "\n")
    end
  end

  def self.package(fields)
    kilobytes = fields["Installed-Size"].to_i
    {
      "package" => fields["Package"],
      "version" => fields["Version"],
      "architecture" => (fields["Architecture"] || "none").to_sym,
      "essential" => fields["Essential"] == "yes",
      "source" => fields["Source"],
      "installed" => { "kilobytes" => kilobytes, "megabytes" => kilobytes / 1024.0 },
      "depends" => (fields["Depends"] || "").split(/,\s*/).map { |any| any.split(/\s*\|\s*/) },
      "description" => fields["Description"]
    }
  end

  # "<md5>  <path>" lines.
  def self.packaged_files
    Dir[LISTS].sort.lazy.flat_map do |list|
      package = File.basename(list, ".md5sums")
      File.readlines(list, encoding: "UTF-8").map do |line|
        md5, path = line.chomp.split("  ", 2)
        file("/#{path}").merge("package" => package, "md5" => [md5].pack("H*"))
      end
    end
  end

  def self.other_files
    ELSEWHERE.lazy.flat_map { |folder| Dir[File.join(folder, "**", "*")].sort.map { |path| file(path) } }
  end

  def self.file(path)
    stat = File.lstat(path)
    # A size beyond 32 bits would be cut as an Integer.
    size = stat.size < 2**31 ? stat.size : stat.size.to_s
    { "path" => path, "type" => stat.ftype.to_sym, "mode" => stat.mode, "size" => size, "modified" => stat.mtime.to_f }
  rescue SystemCallError
    { "path" => path, "type" => nil }
  end
end
