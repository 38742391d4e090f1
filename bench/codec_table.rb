# frozen_string_literal: true

# The table of the Ruby benchmark: one row for each document and operation, the cost with each codec, and how the peer
# with the lowest cost compares with us.
class CodecTable
  OPERATIONS = ["encode", "decode", "round trip"].freeze
  # Figures beside the codecs', which --floor adds.
  BESIDE = { "encode" => ["in buffer", "floor"], "decode" => ["floor"], "round trip" => [] }.freeze

  attr_reader :means

  # figures: for each document its "microseconds" and, if counted, its "instructions", by operation and codec; ratios
  # are added to them.
  def initialize(codecs, figures, floor)
    @names = codecs
    @figures = figures
    @floor = floor
    @counted = figures.values.any? { |figure| figure.key?("instructions") }
    @means = {}
  end

  def print
    OPERATIONS.each do |operation|
      names = @names + (@floor ? BESIDE.fetch(operation) : [])
      puts "", head(operation, names)
      @figures.each { |document, figure| puts row(operation, names, document, figure) }
      print_mean(operation, "#{operation} ratio", "times")
      print_mean("#{operation} instructions", "#{operation} instructions ratio", "instructions") if @counted
    end
  end

  private

  def head(operation, names)
    head = format("%-26s", operation) + names.map { |name| name.rjust(10) }.join << "  fastest peer  ratio"
    head << "  instructions  fewest, peer          ratio" if @counted
    head << "  ours/floor" if names.include?("floor")
    head
  end

  def row(operation, names, document, figure)
    times = costs(figure["microseconds"], operation)
    row = format("%-26s", document) + names.map { |n| times[n] ? format("%10.1f", times[n]) : "-".rjust(10) }.join
    peer, = best_peer(figure, times, "#{operation} ratio")
    row << format("  %-12s  %5s", peer || "-", ratio(figure["#{operation} ratio"]))
    if @counted
      counts = costs(figure["instructions"], operation)
      peer, fewest = best_peer(figure, counts, "#{operation} instructions ratio")
      row << format("  %12d  %12s %-8s  %5s", counts["vorn"], fewest || "-", peer || "-",
                    ratio(figure["#{operation} instructions ratio"]))
    end
    row << format("  %10.2f", (times["in buffer"] || times["vorn"]) / times["floor"]) if times["floor"]
    row
  end

  def ratio(number)
    number ? format("%.2f", number) : "-"
  end

  def costs(figures, operation)
    figures.select { |work, _| work.start_with?("#{operation}/") }
           .map { |work, cost| [work.split("/")[1], cost] }.to_h
  end

  # The peer and its cost, and stores its ratio to ours; nil if there is no peer.
  def best_peer(figure, costs, ratio)
    peer, cost = costs.select { |name, _| name != "vorn" && @names.include?(name) }.min_by { |_, c| c }
    return unless peer
    figure[ratio] = cost.fdiv(costs["vorn"])
    [peer, cost]
  end

  def print_mean(name, ratio, what)
    ratios = @figures.values.map { |figure| figure[ratio] }.compact
    return if ratios.empty?
    @means[name] = Math.exp(ratios.map { |r| Math.log(r) }.inject(:+) / ratios.size)
    puts format("geometric mean of the ratios of %s: %.2f", what, @means[name])
  end
end
