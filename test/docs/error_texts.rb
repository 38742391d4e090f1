# frozen_string_literal: true

# Compares the error texts in the sources with the table in docs/operations/operating.md: each text has its row, and
# each row of the library's own texts has its source. bin/test documents calls it.

TABLE = "docs/operations/operating.md"
SOURCES = Dir["{ext,proto,vobject,stream,packing,stream_ext}/*.{cc,h}"] +
          Dir["lib/vorn_rpc/{stream,packing,rpc}{,/*}.rb"] +
          %w[ext/extconf.rb tools/inspect/stream_scanner.cc tools/inspect/value_scanner.cc]

# Names of data types look like messages, but no error contains them. The place of damage stands above its table.
NO_ERROR = /\AVORN |\A \(at byte \z|\A of the stream\)\z|\A%s: %s; closing\z/

# What is raised, or reported; what it says of a value becomes %s.
def texts_of_ruby(code)
  code = code.gsub(/^\s*#.*/, "")
  code.scan(/(?:raise|skip|lose|failure|logger\.warn).*?"(.*)"/).flatten.map { |text| text.gsub(/\#{.*?}/, "%s") }
end

# The string literals of a source that look like a message, with adjacent literals joined.
def texts_of(file)
  code = File.read(file, encoding: "UTF-8")
  return texts_of_ruby(code) if file.start_with?("lib/")
  code = code.gsub(%r{/\*.*?\*/}m, "").gsub(file.end_with?(".rb") ? /^\s*#.*/ : %r{^\s*//.*|\s//[/ ].*}, "")
  return code.scan(/abort "([^"#]*)/).flatten + code.scan(/require_that\("([^"]*)/).flatten if file.end_with?(".rb")
  code = code.gsub(/^\s*#.*/, "").gsub(/static_assert\(.*?\);/m, "")
  joined = code.gsub(/"\s*\n?\s*"(?=[^"\n]*")/) { |gap| gap.include?("\n") ? "" : gap }
  literals = joined.scan(/"((?:[^"\\\n]|\\.)*)"/).flatten
  literals.select { |text| text =~ /[a-z]{2,} ?[:%]? ?[a-z%]/i && text.strip =~ / / && text !~ /\\x|\{:/ }
end

# The constant parts of a text: "a %s b" and "a N b" both give "a" and "b".
def fixed_parts(text)
  text.split(/%l?[a-z]|\b[NMX]\b|\.\.\./).map { |part| part.strip.sub(/:\z/, "") }.reject { |part| part.size < 4 }
end

rows = File.readlines(TABLE, encoding: "UTF-8").map { |line| line[/\A\| `([^`]+)` \|/, 1] }.compact
own = File.read(TABLE, encoding: "UTF-8")[/<!-- texts of the library -->(.*)<!-- end of texts -->/m, 1].to_s
          .lines.map { |line| line[/\A\| `([^`]+)` \|/, 1] }.compact
texts = SOURCES.flat_map { |file| texts_of(file).map { |text| [text, file] } }
failures = []

# Texts that are composed at run time are compared in parts.
def row_for?(text, row)
  return row == text unless text =~ /%l?[a-z]/ || text != text.strip || text =~ /\A(a |Ruby's|Boost's)/
  fixed_parts(text).all? { |part| row.include?(part) }
end

texts.each do |text, file|
  next if text =~ NO_ERROR || rows.any? { |row| row_for?(text, row) }
  failures << "#{file}: no row in #{TABLE} for #{text.inspect}"
end
own.each do |row|
  next if fixed_parts(row).all? { |part| texts.any? { |text, _| text.include?(part) } }
  failures << "#{TABLE}: in no source: #{row.inspect}"
end

puts failures
puts "#{texts.size} error texts, #{rows.size} rows, #{failures.size} failures"
exit failures.empty? && texts.size > 50 && own.size > 50
