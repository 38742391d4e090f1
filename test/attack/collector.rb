# frozen_string_literal: true

module Attack
  # How often the garbage collector runs during the operations.
  #
  #   normal   as in any program
  #   stress   a collection at every allocation inside the extension's operations
  #   compact  a compaction now and then, with a check of all references, and one at every full collection; each where
  #            the interpreter supports it
  class Collector
    LEVELS = %w[normal stress compact].freeze
    # Operations between two compactions.
    PERIOD = 100

    class << self
      # What a callback that requests a collection does.
      attr_accessor :meanwhile
    end
    self.meanwhile = -> {}

    def self.can_compact?
      GC.respond_to?(:compact) && GC.compact && true
    rescue NotImplementedError
      false
    end

    def initialize(level)
      raise ArgumentError, "no level #{level}" unless LEVELS.include?(level)
      @level = level
      @compacts = level == "compact" && Collector.can_compact?
      return unless @compacts
      GC.start # Ruby 3.1 moves what it may not if compaction is turned on while it marks
      GC.auto_compact = true if GC.respond_to?(:auto_compact=)
      Collector.meanwhile = -> { GC.compact }
    end

    # For the command that reproduces a run.
    def option
      @level == "normal" ? "" : " --gc #{@level}"
    end

    def during
      return yield unless @level == "stress"
      begin
        GC.stress = true
        yield
      ensure
        GC.stress = false
      end
    end

    def between(performed)
      return unless @compacts && performed % PERIOD == 0
      GC.respond_to?(:verify_compaction_references) ? GC.verify_compaction_references(toward: :empty) : GC.compact
    end
  end
end
