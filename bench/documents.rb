# frozen_string_literal: true

require "json"

# The documents that the Ruby benchmark encodes and decodes. All come from one seed, so that two runs measure the
# same bytes.
module Documents
  # use: how a program calls the codecs for this document, one of those in codecs.rb.
  Document = Struct.new(:name, :value, :use)

  WORDS = %w[the quick brown fox jumps over lazy dog while every other animal sleeps near old river bank and
             nobody wants to hear about yesterday café naïve über jalapeño].freeze

  module_function

  def all(random = Random.new(20_240_117))
    records = records(random, 1_000)
    common = {
      "small request" => small_request,
      "1,000 records" => records,
      "social posts" => posts(random, 620),
      "event catalogue" => catalogue(random),
      "coordinates" => coordinates(random),
      "20,000 integers" => Array.new(20_000) { |i| i.even? ? random.rand(128) : random.rand(2**31) - 2**30 },
      "5,000 strings" => Array.new(5_000) { text(random, 60) }
    }
    shapes = shapes(random)
    new_buffer = { "small request, new buffer" => small_request, "1,000 records, new buffer" => records,
                   "300 texts, new buffer" => shapes["300 texts"] }
    states = %i[created queued running failed finished]
    symbol_keys = records.map { |record| table(record) { |key, value| [key.to_sym, value] } }
    with_use(common, :reused) + with_use(shapes, :reused) + with_use(new_buffer, :new_buffer) +
      with_use({ "1,000 records, Symbol keys" => symbol_keys }, :symbol_keys) +
      with_use({ "20,000 Symbols" => Array.new(20_000) { |i| states[i * 7 % 5] } }, :symbol_values)
  end

  def with_use(documents, use)
    documents.map { |name, value| Document.new(name, value, use) }
  end

  # What the documents above have little of. Integers are either within 32 bits or too large for an immediate
  # Integer: those between are cut to 32 bits.
  def shapes(random)
    {
      "300 texts" => Array.new(300) { text(random, 60 + random.rand(141)) },
      "20,000 short strings" => Array.new(20_000) { text(random, 1 + random.rand(8)) },
      "2,000 binary strings" => Array.new(2_000) { random.bytes(100) },
      "a Hash of 10,000 keys" => table(10_000) { |i| ["key #{i}", i] },
      "200 Hashes of 64 keys" => Array.new(200) { table(64) { |i| ["column #{i}", i] } },
      "5,000 small Hashes" => Array.new(5_000) { |i| { "x" => i, "y" => -i } },
      "5,000 Integer keys" => table(5_000) { |i| [i * 7, i] },
      "5,000 Bignums" => Array.new(5_000) { |i| (2**62 + random.rand(2**62)) * (i.even? ? 1 : -1) },
      "20,000 nils" => Array.new(20_000),
      "20,000 empty Arrays" => Array.new(20_000) { [] },
      "60 levels" => (1..60).inject(1) { |inner, _| [inner] }
    }
  end

  def table(members, &pair)
    members = members.times if members.is_a?(Integer)
    members.map(&pair).to_h
  end

  # Documents of a chosen size and the same shape, to show how the cost grows with the size.
  def records(random, count)
    Array.new(count) do |i|
      { "id" => i, "name" => text(random, 12), "email" => "user#{i}@example.org", "active" => i.odd?,
        "score" => random.rand, "tags" => %w[alpha beta], "parent" => nil }
    end
  end

  def small_request
    { "id" => 4711, "method" => "account.update",
      "params" => { "user" => "u-20931", "amount" => 12.5, "notify" => true } }
  end

  def text(random, length)
    words = "".dup
    words << WORDS[random.rand(WORDS.size)] << " " while words.size < length
    words[0, length]
  end

  def user(random)
    { "id" => random.rand(2**31), "id_str" => random.rand(10**10).to_s, "name" => text(random, 14),
      "screen_name" => text(random, 10), "location" => text(random, 16), "url" => nil,
      "description" => text(random, 90), "protected" => false, "followers_count" => random.rand(10_000),
      "friends_count" => random.rand(2_000), "listed_count" => random.rand(50), "verified" => false,
      "utc_offset" => nil, "time_zone" => nil, "lang" => "en", "default_profile" => true }
  end

  def posts(random, count)
    statuses = Array.new(count) do
      { "metadata" => { "result_type" => "recent", "iso_language_code" => "en" },
        "created_at" => "Sun Aug 31 00:29:15 +0000 2014", "id" => random.rand(2**31), "text" => text(random, 120),
        "source" => "<a href=\"http://example.org/client\" rel=\"nofollow\">A client</a>", "truncated" => false,
        "user" => user(random), "geo" => nil, "coordinates" => nil, "retweet_count" => random.rand(1_000),
        "entities" => { "hashtags" => [], "symbols" => [], "urls" => [],
                        "user_mentions" => [{ "screen_name" => text(random, 10), "name" => text(random, 14),
                                              "id" => random.rand(2**31), "indices" => [3, 19] }] },
        "favorited" => false, "retweeted" => false }
    end
    { "statuses" => statuses, "search_metadata" => { "count" => count, "query" => "%E4%B8%80" } }
  end

  def catalogue(random)
    events = {}
    200.times { |i| events[(138_586_341 + i).to_s] = event(random, 138_586_341 + i) }
    performances = Array.new(1_400) { performance(random) }
    names = {}
    300.times { |i| names[(205_705_993 + i).to_s] = text(random, 22) }
    { "areaNames" => names, "events" => events, "performances" => performances, "topicNames" => names.dup }
  end

  def event(random, id)
    { "description" => nil, "id" => id, "logo" => "/images/UE0AAAAACEKo6QAAAAZDSVRN", "name" => text(random, 30),
      "subTopicIds" => Array.new(4) { random.rand(10**9) }, "subjectCode" => nil, "subtitle" => nil,
      "topicIds" => Array.new(2) { random.rand(10**9) } }
  end

  def performance(random)
    prices = Array.new(3) do
      { "amount" => random.rand(200_000), "audienceSubCategoryId" => 337_100_890,
        "seatCategoryId" => random.rand(10**9) }
    end
    seats = Array.new(4) do
      { "areas" => Array.new(4) { { "areaId" => random.rand(10**9), "blockIds" => [] } },
        "seatCategoryId" => random.rand(10**9) }
    end
    { "eventId" => random.rand(10**9), "id" => random.rand(10**9), "logo" => nil, "name" => nil, "prices" => prices,
      "seatCategories" => seats, "seatMapImage" => nil, "start" => 1_372_701_600, "venueCode" => "PLEYEL_PLEYEL" }
  end

  def coordinates(random)
    rings = Array.new(480) { Array.new(115) { [random.rand * 360 - 180, random.rand * 180 - 90] } }
    { "type" => "FeatureCollection",
      "features" => [{ "type" => "Feature", "properties" => { "name" => "Canada" },
                       "geometry" => { "type" => "Polygon", "coordinates" => rings } }] }
  end
end
