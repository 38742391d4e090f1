# frozen_string_literal: true

module VORN
  class Packing
    # The types that need no registration of their own. What arrives is hostile: each part is checked before it is used,
    # and numbers are short enough for what converts them.
    module ReadyMade # :nodoc:
      MOST_DIGITS = 4096
      DIGITS = "\\d{1,#{MOST_DIGITS}}".freeze
      INTEGER = /\A-?#{DIGITS}\z/
      RATIONAL = %r{\A(-?#{DIGITS})/(#{DIGITS})\z}
      DECIMAL = /\A-?0\.#{DIGITS}(?:e(-?\d{1,4}))?\z/

      SECONDS_OF_DAY = 86_400
      DAY_0 = 2_440_588 # of the epoch, as Date#jd counts
      DAYS = (-2**31..2**31 - 1).freeze
      SECONDS = (0...SECONDS_OF_DAY).freeze
      NANOSECONDS = (0...1_000_000_000).freeze
      OFFSETS = (1 - SECONDS_OF_DAY..SECONDS_OF_DAY - 1).freeze # what Time takes

      module_function

      def integers(types)
        types.type("integer", Integer,
                   pack: ->(number) { digits_of(number) },
                   unpack: ->(text) { Integer(matched(INTEGER, text)[0], 10) })
      end

      def rationals(types)
        types.type("rational", Rational,
                   pack: ->(number) { "#{digits_of(number.numerator)}/#{digits_of(number.denominator)}" },
                   unpack: lambda do |text|
                     parts = matched(RATIONAL, text)
                     Rational(Integer(parts[1], 10), Integer(parts[2], 10))
                   end)
      end

      # The parts need no type of their own: all of them fit 32 bits.
      def times(types)
        types.type("time", Time,
                   pack: lambda do |time|
                     [*time.to_i.divmod(SECONDS_OF_DAY), time.nsec, time.utc? ? nil : time.utc_offset.floor]
                   end,
                   unpack: ->(parts) { time_of(parts) })
      end

      def dates(types)
        require "date"
        types.type("date", Date,
                   pack: ->(date) { date.jd - DAY_0 },
                   unpack: ->(day) { Date.jd(DAY_0 + within(DAYS, day)) })
      end

      def decimals(types)
        require "bigdecimal"
        types.type("decimal", BigDecimal,
                   pack: ->(number) { decimal_digits_of(number) },
                   unpack: ->(text) { BigDecimal(matched_decimal(text)) })
      end

      def digits_of(integer)
        # Looked at before conversion, whose cost grows faster than the number.
        short = integer.bit_length < MOST_DIGITS * 4 && integer.to_s
        return short.force_encoding(Encoding::UTF_8) if short && INTEGER =~ short
        raise RangeError, "a number of more than #{MOST_DIGITS} digits"
      end

      def decimal_digits_of(number)
        text = number.to_s("E").downcase # named, since some programs give to_s another default
        return text.force_encoding(Encoding::UTF_8) if decimal?(DECIMAL.match(text))
        raise RangeError, "a BigDecimal that is not finite, or has more than #{MOST_DIGITS} digits or powers of ten"
      end

      def decimal?(match)
        match && match[1].to_i.abs <= MOST_DIGITS
      end

      def matched(pattern, text)
        String === text && pattern.match(text) or raise ArgumentError
      end

      def matched_decimal(text)
        match = matched(DECIMAL, text)
        decimal?(match) ? match[0] : raise(ArgumentError)
      end

      def within(range, number)
        Integer === number && range.cover?(number) ? number : raise(ArgumentError)
      end

      def time_of(parts)
        raise ArgumentError unless Array === parts && parts.size == 4
        day, second, nanosecond, offset = parts
        seconds = within(DAYS, day) * SECONDS_OF_DAY + within(SECONDS, second)
        time = Time.at(seconds, Rational(within(NANOSECONDS, nanosecond), 1000))
        offset.nil? ? time.utc : time.localtime(within(OFFSETS, offset))
      end

      TYPES = {
        integer: method(:integers), time: method(:times), date: method(:dates), decimal: method(:decimals),
        rational: method(:rationals)
      }.freeze
    end
    private_constant :ReadyMade
  end
end
