# frozen_string_literal: true

# Compiles and runs the C++ blocks of documents, except those that the text tells the reader to write into a file: the
# commands around them cover these (doc_examples.rb). Called by bin/test native-documents.

require "open3"

root, compiler, *files = ARGV
passed = failed = 0
files.each do |file|
  blocks = File.read(file, encoding: "UTF-8").scan(/^(<!-- .*-->\n)?```cpp\n(.*?)^```$/m)
  blocks.each_with_index do |(marker, block), index|
    next if marker
    name = "#{file}, block #{index + 1}"
    source = File.join(root, "example.cc")
    program = File.join(root, "example")
    File.write(source, block)
    expected = block.scan(%r{^// prints (.*)$}).map { |(line)| "#{line}\n" }.join
    log, compiled = Open3.capture2e(compiler, "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-I.", source,
                                    File.join(root, "library", "libvorn_rpc_calls.a"),
                                    File.join(root, "library", "libvorn_rpc.a"), "-pthread", "-o", program)
    printed, ran = compiled.success? ? Open3.capture2e(program) : [log, compiled]
    if ran.success? && !expected.empty? && printed == expected
      passed += 1
    else
      failed += 1
      puts "#{name}:\n#{printed}instead of\n#{expected}"
    end
  end
end
puts "#{passed} passed, #{failed} failed"
exit failed.zero? && passed > 0
