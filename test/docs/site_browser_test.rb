# frozen_string_literal: true

# The documentation site in a browser, headless Chromium: every page at the widths of a phone and of a desk, the search,
# light and dark. bin/test site builds the site and names its folder in SITE. The server listens on loopback only.

require "json"
require "minitest/autorun"
require "selenium-webdriver"
require "tmpdir"
require "uri"
require "webrick"

class SiteBrowserTest < Minitest::Test
  SITE = ENV.fetch("SITE")
  PHONE = [390, 844].freeze
  DESK = [1400, 900].freeze
  WAIT = Selenium::WebDriver::Wait.new(timeout: 20)
  OPTIONS = %w[--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
               --disable-component-update --disable-sync].freeze

  # The server is for all tests; each has a browser of its own, which knows nothing yet.
  def self.server
    @server ||= WEBrick::HTTPServer.new(BindAddress: "127.0.0.1", Port: 0, DocumentRoot: SITE, AccessLog: [],
                                        Logger: WEBrick::Log.new(File::NULL)).tap do |server|
      Thread.new { server.start }
    end
  end

  def setup
    @base = "http://127.0.0.1:#{self.class.server.config[:Port]}"
    @folder = Dir.mktmpdir
    options = Selenium::WebDriver::Chrome::Options.new(args: OPTIONS + ["--user-data-dir=#{@folder}"])
    options.add_option("goog:loggingPrefs", { "browser" => "ALL", "performance" => "ALL" })
    @browser = Selenium::WebDriver.for(:chrome, options: options)
    prefer("light")
    size(DESK)
    open_page("docs/index.html")
  end

  # Whatever a test does: nothing comes from elsewhere, and the console has no error.
  def teardown
    return unless @browser
    requests, complaints = logs
    assert_operator requests.size, :>, 5
    assert_empty requests.reject { |url| url.start_with?("#{@base}/") }
    assert_empty complaints
  ensure
    @browser.quit if @browser
    FileUtils.rm_rf(@folder)
  end

  def test_no_page_is_wider_than_the_screen
    serve_search(false)
    documents = in_site("*.html") + in_site("{examples,fuzz,test,tools}/**/index.html") + in_site("docs/**/*.html")
    programs = in_site("examples/**/*.{rb,py,cc,h,lua}.html")
    references = in_site("reference/ruby/VORN/**/*.html") + in_site("reference/native/{index,class*}.html")
    assert_operator documents.uniq.size, :>, 35
    # Of pages that are alike, the longest.
    pages = documents.uniq - ["404.html"] + longest(5, programs) + longest(12, references)
    wide = pages.flat_map do |page|
      size(PHONE)
      open_page(page)
      [PHONE, DESK].map do |screen|
        size(screen)
        width = @browser.execute_script("return document.documentElement.scrollWidth")
        "#{page}: #{width} of #{screen[0]}" if width > screen[0]
      end
    end
    assert_empty wide.compact
  ensure
    serve_search(true)
  end

  def test_the_search_finds_a_method_of_ruby
    assert_found "PacketBuf#extract_object", "reference/ruby/VORN/PROTO/PacketBuf.html", "method-i-extract_object"
  end

  def test_the_search_finds_a_method_of_cpp
    page = "reference/native/classVORN_1_1STREAM_1_1StreamDecoder.html"
    html = File.read(File.join(SITE, page), encoding: "UTF-8")
    assert_found "StreamDecoder::feed", page, html[/#(a\h{30,})[^>]*>feed</, 1]
  end

  def test_the_search_finds_an_error_text
    assert_found "serialize_rbobj_to_packetbuf: unsupported rb_type", "docs/operations/operating.html",
                 "error-serialize_rbobj_to_packetbuf-unsupported-rb_type"
  end

  def test_the_search_finds_a_section_on_a_phone
    size(PHONE)
    open_page("docs/index.html")
    @browser.find_element(css: "label.md-header__button[for=__search]").click
    type("sending a time")
    assert_includes results[0], "#{@base}/docs/guide/ruby.html"
  end

  # At the first visit; from then on the theme keeps what was shown, until the reader chooses.
  def test_light_and_dark_follow_the_system_until_the_reader_chooses
    assert_equal [true, "default"], look
    @browser.execute_script("localStorage.clear()")
    prefer("dark")
    open_page("index.html")
    assert_equal [false, "slate"], look
    @browser.find_elements(css: "label.md-header__button[for^=__palette]").find(&:displayed?).click
    WAIT.until { look == [true, "default"] }
    open_page("docs/guide/ruby.html")
    assert_equal [true, "default"], look
  end

  private

  def in_site(pattern)
    Dir.chdir(SITE) { Dir[pattern].sort }
  end

  def longest(count, pages)
    pages.max_by(count) { |page| File.size(File.join(SITE, page)) }
  end

  # Each page makes the index of its search anew, which takes most of the time of opening it.
  def serve_search(wanted)
    index = "/search/search_index.json"
    return self.class.server.unmount(index) if wanted
    self.class.server.mount_proc(index) { |_, response| response.body = %({"config":{"lang":["en"]},"docs":[]}) }
  end

  def open_page(path)
    @browser.get("#{@base}/#{path}")
  end

  def size(screen)
    @browser.execute_cdp("Emulation.setDeviceMetricsOverride", width: screen[0], height: screen[1], mobile: false,
                                                               deviceScaleFactor: 1)
  end

  def prefer(scheme)
    @browser.execute_cdp("Emulation.setEmulatedMedia", features: [{ name: "prefers-color-scheme", value: scheme }])
  end

  # Is the page bright, and which scheme does it name?
  def look
    colour = @browser.execute_script("return getComputedStyle(document.body).backgroundColor")
    [colour.scan(/\d+/).first(3).map(&:to_i).inject(:+) > 384,
     @browser.execute_script("return document.body.dataset.mdColorScheme")]
  end

  def type(words)
    @browser.find_element(css: "[data-md-component=search-query]").send_keys(words)
    WAIT.until { results.any? }
  end

  # The links of each page that is found, the best page first.
  def results
    @browser.execute_script(<<-JS).map { |links| links.map { |link| link.sub(/\?[^#]*/, "") } }
      return Array.from(document.querySelectorAll(".md-search-result__item"),
                        item => Array.from(item.querySelectorAll("a"), link => link.href))
    JS
  end

  # The first page that is found is this one, and its link leads to this place, which is then in sight.
  def assert_found(words, page, anchor)
    @browser.find_element(css: "[data-md-component=search-query]").click
    type(words)
    assert_includes results[0], "#{@base}/#{page}##{anchor}"
    links = @browser.find_elements(css: ".md-search-result__item a").map { |link| link.attribute(:href) }
    @browser.get(links.find { |link| link.end_with?("##{anchor}") })
    place = @browser.execute_script(<<-JS, anchor)
      const place = document.getElementById(arguments[0]).getBoundingClientRect()
      return [location.pathname, place.top >= -1 && place.top < innerHeight]
    JS
    assert_equal ["/#{page}", true], place
  end

  # What was requested of a host, and the errors of the console. The browser's own pages, and data within pages, have no
  # host.
  def logs
    requests = @browser.logs.get(:performance).map { |line| JSON.parse(line.message)["message"] }
    requests = requests.select { |message| message["method"] == "Network.requestWillBeSent" }
    [requests.map { |message| message["params"]["request"]["url"] }.reject { |url| url =~ /\A(?:data|blob|chrome):/ },
     @browser.logs.get(:browser).select { |line| line.level == "SEVERE" }.map(&:message)]
  end
end
