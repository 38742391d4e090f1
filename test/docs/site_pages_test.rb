# frozen_string_literal: true

# The files of the documentation site: links, what the search finds, and that Markdown means here what it means on a
# code host. bin/test site builds it and names the folder in SITE.

require "json"
require "minitest/autorun"
require "nokogiri"
require "open3"
require "uri"

class SitePagesTest < Minitest::Test
  SITE = ENV.fetch("SITE")
  DOCUMENTS = Dir["*.md"] + Dir["{docs,examples,test,tools,fuzz}/**/*.md"]
  BLOCKS = %w[h1 h2 h3 h4 h5 h6 p ul ol li pre blockquote table th td].freeze

  # Every page is read once.
  def self.pages
    @pages ||= Dir["#{SITE}/**/*.html"].map { |path| [path, Nokogiri::HTML(File.read(path, encoding: "UTF-8"))] }.to_h
  end

  # Whatever names another file or a place in one, the generated reference included.
  def test_every_link_leads_somewhere
    links = self.class.pages.flat_map { |path, page| targets(page).map { |target| [path, target] } }
    assert_operator links.size, :>, 10_000
    assert_empty links.reject { |path, target| there?(path, target) }
  end

  def test_links_to_other_hosts_are_well_formed
    links = self.class.pages.flat_map { |path, page| page.css("a[href]").map { |link| [path, link["href"]] } }
    links = links.select { |_, href| href =~ /\A[a-z]+:/i }
    bad = links.reject { |_, href| href =~ %r{\Ahttps?://[a-z0-9.-]+\.[a-z]{2,}(/[^\s"<>]*)?\z} }
    refute_empty links
    assert_empty bad
  end

  def test_pages_load_nothing_from_other_hosts
    loaded = self.class.pages.flat_map do |path, page|
      page.css("[src], link[href], [srcset], object[data]").map do |element|
        [path, element["src"] || element["href"] || element["data"] || element["srcset"]]
      end
    end
    styles = Dir["#{SITE}/**/*.css"].flat_map do |path|
      File.read(path, encoding: "UTF-8").scan(/(?:url\(|@import\s+)["']?([^"')]+)/).map { |(url)| [path, url] }
    end
    refute_empty styles
    assert_empty((loaded + styles).select { |_, url| url =~ %r{\A(?:[a-z]+:)?//}i })
  end

  def test_the_search_leads_to_every_document_and_to_existing_places
    found = JSON.parse(File.read("#{SITE}/search/search_index.json", encoding: "UTF-8"))["docs"]
    places = found.map { |entry| entry["location"].split("#") }
    nowhere = places.reject do |page, anchor|
      html = self.class.pages["#{SITE}/#{page}"]
      html && (anchor.nil? || anchor == "top" || ids(html).include?(anchor))
    end
    assert_empty nowhere
    assert_empty DOCUMENTS.map { |path| page_of(path) } - places.map(&:first)
    classes = Dir["#{SITE}/reference/{ruby/VORN/**/*,native/classVORN*}.html"].reject { |path| path =~ /-members\./ }
    refute_empty classes
    assert_empty classes.map { |path| path.sub("#{SITE}/", "") } - places.map(&:first)
  end

  # What MkDocs makes of Markdown is, block by block, what a code host makes of it: lists as deep, tables, code.
  def test_documents_have_the_same_blocks_as_on_a_code_host
    DOCUMENTS.each do |path|
      html, status = Open3.capture2("cmark-gfm", "-e", "table", "-e", "autolink", "--unsafe", path)
      assert_predicate status, :success?
      article = self.class.pages["#{SITE}/#{page_of(path)}"].at_css("article").dup
      article.css(".headerlink").remove
      expected = blocks(Nokogiri::HTML.fragment(html.force_encoding("UTF-8")))
      refute_empty expected
      expected.zip(blocks(article)).each { |one, other| assert_equal one, other, path }
      assert_equal expected.size, blocks(article).size, path
    end
  end

  private

  def page_of(document)
    document.sub(/README\.md\z/, "index.md").sub(/\.md\z/, ".html")
  end

  # The addresses in this site that a page names, to follow or to load.
  def targets(page)
    all = page.css("[href], [src]").map { |element| element["href"] || element["src"] }
    all.reject { |target| target =~ /\A[a-z]+:/i || target.empty? }.uniq
  end

  def there?(path, target)
    file, anchor = target.split("#", 2).map { |part| URI.decode_www_form_component(part.gsub("+", "%2B")) }
    file = file.sub(/\?.*/, "")
    # The page for what does not exist is served at any depth.
    file = File.expand_path(file, file.start_with?("/") ? "/" : File.dirname(path)) unless file.empty?
    file = File.join(SITE, file) if target.start_with?("/")
    file = path if file.empty?
    file = File.join(file, "index.html") if File.directory?(file)
    return false unless file.start_with?("#{SITE}/") && File.file?(file)
    ["", "top"].include?(anchor.to_s) || !self.class.pages.key?(file) || ids(self.class.pages[file]).include?(anchor)
  end

  def ids(page)
    (@ids ||= {}.compare_by_identity)[page] ||= page.css("[id], a[name]").flat_map { |e| [e["id"], e["name"]] }.uniq
  end

  # The paragraphs of a loose list are not those of a tight one; everything else has to be the same.
  def blocks(tree)
    blocks = tree.css(BLOCKS.join(",")).reject { |block| block.name == "p" && block.parent.name == "li" }
    blocks.map { |block| [block.name, block.text.gsub(/[[:space:]]+/, "")] }
  end
end
