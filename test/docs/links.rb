# Sees that each link between the documents leads to a file, and to a heading where it names one, and that the index
# docs/README.md names each document. bin/test documents calls it.

DOCUMENTS = Dir["*.md"] + Dir["{docs,examples,test,tools,fuzz}/**/*.md"]
failures = []
links = 0

# As the usual Markdown viewers name headings.
def anchors(path)
  File.readlines(path, encoding: "UTF-8").grep(/\A#+ /).map do |line|
    line.sub(/\A#+ /, "").strip.downcase.gsub(/[^\p{L}\p{N} _-]/, "").tr(" ", "-")
  end
end

DOCUMENTS.each do |path|
  text = File.read(path, encoding: "UTF-8").gsub(/^```.*?^```/m, "")
  text.scan(/\]\(([^)\s]+)\)/).flatten.reject { |link| link =~ /\A[a-z]+:/ }.each do |link|
    links += 1
    file, anchor = link.split("#", 2)
    target = file.empty? ? path : File.join(File.dirname(path), file)
    if !File.exist?(target)
      failures << "#{path}: #{link} leads nowhere"
    elsif anchor && !anchors(target).include?(anchor)
      failures << "#{path}: no heading for #{link}"
    end
  end
end

index = File.read("docs/README.md", encoding: "UTF-8")
(Dir["docs/*.md"] - ["docs/README.md"]).each do |path|
  failures << "docs/README.md does not name #{path}" unless index.include?("(#{File.basename(path)})")
end

puts failures
puts "#{links} links, #{failures.size} failures"
exit failures.empty? && links > 0
