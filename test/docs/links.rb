# frozen_string_literal: true

# Checks that each link between the documents leads to a file, and to an existing heading if it names one, and that the
# indexes of docs/ list each document. bin/test documents calls it.

DOCUMENTS = Dir["*.md"] + Dir["{docs,examples,test,tools,fuzz}/**/*.md"]
failures = []
links = 0

# The anchors that common Markdown viewers give to headings.
def anchors(path)
  File.readlines(path, encoding: "UTF-8").grep(/\A#+ /).map do |line|
    line.sub(/\A#+ /, "").strip.downcase.gsub(/[^\p{L}\p{N} _-]/, "").tr(" ", "-")
  end
end

# Returns the fault of a link in a document, or nil.
def fault(path, link)
  file, anchor = link.split("#", 2)
  target = file.empty? ? path : File.join(File.dirname(path), file)
  return "#{path}: #{link} leads nowhere" unless File.exist?(target)
  "#{path}: no heading for #{link}" if anchor && !anchors(target).include?(anchor)
end

# Checks the checker: these links are dead.
%w[nowhere.md docs/README.md#nowhere #nowhere].each do |dead|
  failures << "accepts #{dead}" unless fault("README.md", dead)
end

DOCUMENTS.each do |path|
  text = File.read(path, encoding: "UTF-8").gsub(/^```.*?^```/m, "")
  text.scan(/\]\(([^)\s]+)\)/).flatten.reject { |link| link =~ /\A[a-z]+:/ }.each do |link|
    links += 1
    failures << fault(path, link)
  end
end
failures.compact!

# Each index lists all documents below its folder, except those that a deeper index lists.
indexes = Dir["docs/**/README.md"].sort
Dir["docs/**/*.md"].each do |path|
  index = (indexes - [path]).select { |file| path.start_with?(File.dirname(file) + "/") }.max_by(&:size) or next
  link = "(" + path.sub(File.dirname(index) + "/", "") + ")"
  failures << "#{index} does not name #{path}" unless File.read(index, encoding: "UTF-8").include?(link)
end

# Comments name documents by their path, and tests of the site their pages.
sources = Dir["{bench,bin,ci,examples,ext,fuzz,lib,proto,test,tools,vobject}/**/*"].select { |path| File.file?(path) }
sources.each do |path|
  File.read(path, encoding: "BINARY").scan(%r{(?<![\w/])docs/[\w/-]+\.\w+}).uniq.each do |document|
    document = document.sub("index.html", "README.md").sub(".html", ".md")
    failures << "#{path}: there is no #{document}" unless File.exist?(document)
  end
end

puts failures
puts "#{links} links, #{failures.size} failures"
exit failures.empty? && links > 0
