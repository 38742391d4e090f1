# frozen_string_literal: true

module VORN
  module RPC
    # What a server can do: bodies by the names that clients use. A name from outside is looked up here, never passed
    # to `send`.
    class MethodTable # :nodoc:
      # Every exception that a request can cause; the rest are signals and the end of the process.
      FAILURES = [StandardError, ScriptError, NoMemoryError, SystemStackError].freeze

      # A name of a method may be long, and an error repeats it.
      MAX_NAME = 40

      # The body, and how many arguments it takes at least and at most.
      Entry = Struct.new(:body, :least, :most)

      # around: see Server.new
      def initialize(methods, logger, around)
        @entries = methods.each_with_object({}) { |(name, body), entries| entries[name.to_s] = entry(name, body) }
        @logger = logger
        @around = around
      end

      def key?(name)
        @entries.key?(name)
      end

      # The answer to a request. To a notification nobody gets it.
      def answer(request)
        id, name, arguments = request
        [id, nil, call(name, arguments)]
      rescue Refused => e
        @logger.warn { "#{shown(name)}: #{printable(e.message)}" } unless id
        Envelope.failure(id, e.code, e.message)
      rescue *FAILURES => e
        # The log has the details; the client does not see the server's internals.
        @logger.error { "#{shown(name)}: #{printable(e.message)} (#{e.class}) at #{Array(e.backtrace).first}" }
        Envelope.failure(id, "failed", "the service failed")
      end

      # The answer to a request that is not executed, since the server is stopped: it can safely be sent to another one.
      # Of a notification only the log tells.
      def refuse(request)
        id, name = request
        @logger.warn { "#{shown(name)}: dropped, the server is stopping" } unless id
        Envelope.failure(id, Envelope::STOPPING, "the server is stopping")
      end

      # The frame of an answer. A result that cannot be sent becomes an error: otherwise the client would wait for its
      # timeout.
      def frame(encoder, answer)
        encoder.frame(answer)
      rescue Stream::MessageTooLarge => e
        encoder.frame(Envelope.failure(answer[0], "too large", e.message))
      rescue *FAILURES => e # raised by the encoder
        @logger.error { "the result cannot be sent: #{printable(e.message)}" }
        encoder.frame(Envelope.failure(answer[0], "failed", "the result cannot be sent"))
      end

      private

      def entry(name, body)
        raise ArgumentError, "no body of a method: #{name}" unless body.respond_to?(:call)
        kinds = (body.respond_to?(:parameters) ? body : body.method(:call)).parameters.map(&:first)
        # Before Ruby 3 a Hash that a client sends last would become keywords.
        raise ArgumentError, "a method of a server takes no keywords: #{name}" unless (kinds & [:key, :keyreq]).empty?
        least = kinds.count(:req)
        most = kinds.include?(:rest) ? Float::INFINITY : least + kinds.count(:opt)
        Entry.new(body, least, most)
      end

      def call(name, arguments)
        entry = @entries.fetch(name) { raise Refused.new("no such method", "no method #{name[0, MAX_NAME].inspect}") }
        if arguments.size < entry.least || arguments.size > entry.most
          raise Refused.new("bad arguments", "#{name} takes #{takes(entry)}, not #{arguments.size}")
        end
        return entry.body.call(*arguments) unless @around
        @around.call(name, arguments) { entry.body.call(*arguments) }
      end

      def takes(entry)
        return entry.least if entry.least == entry.most
        entry.most == Float::INFINITY ? "#{entry.least} or more" : "#{entry.least} to #{entry.most}"
      end

      def shown(name)
        printable(name[0, MAX_NAME])
      end

      # What a client sends may be in it: no line of the log ends there, and no terminal obeys it.
      def printable(text)
        text.to_s.scrub("?").gsub(/[[:cntrl:]]/, "?")
      end
    end
  end
end
