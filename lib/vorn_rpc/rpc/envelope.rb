# frozen_string_literal: true

module VORN
  module RPC
    # The messages of a conversation: a request [id, method, arguments], a notification [nil, method, arguments], which
    # has no answer, and an answer [id, nil, result] or [id, [code, text], nil].
    #
    # The client chooses the id: an Integer of 32 bits or a short String. The answer repeats it, so answers may come in
    # any order.
    module Envelope # :nodoc:
      MIN_ID = -2**31 # others would be cut to their low 32 bits
      MAX_ID = 2**31 - 1
      MAX_ID_BYTES = 64 # leaves room for an error answer, which repeats the id
      STOPPING = "stopping" # the code of a request that was not executed because the server ends

      module_function

      def failure(id, code, text)
        [id, [code, text], nil]
      end

      # Raises BadMessage for what is neither a request nor a notification.
      def check_request(message)
        id, name, arguments = message if message.is_a?(Array) && message.size == 3
        raise BadMessage, "not a request" unless name.is_a?(String) && arguments.is_a?(Array) && id?(id)
      end

      # Raises BadMessage for what is no answer.
      def check_answer(message)
        ok = message.is_a?(Array) && message.size == 3 && (message[1].nil? || error?(message[1]))
        raise BadMessage, "not an answer" unless ok
      end

      def id?(value)
        case value
        when Integer then value >= MIN_ID && value <= MAX_ID
        when String then value.bytesize <= MAX_ID_BYTES
        else value.nil?
        end
      end

      def error?(value)
        value.is_a?(Array) && value.size == 2 && value[0].is_a?(String) && value[1].is_a?(String)
      end
    end
  end
end
