# frozen_string_literal: true

# The ways in which a call can fail, and the check of answers, for both clients.

require_relative "bad_message"

# No answer in time. The server may still be working on the call.
class TimedOut < StandardError; end

# There is no connection, or it was lost before the answer came.
class ConnectionLost < StandardError; end

# The server answered with an error.
class RemoteError < StandardError
  attr_reader :code

  def initialize(code, text)
    super("#{code}: #{text}")
    @code = code
  end
end

module Answers
  private

  # Accepts [id, nil, result] and [id, [code, text], nil]; the server is not trusted to send nothing else.
  def check_answer(answer)
    ok = answer.is_a?(Array) && answer.size == 3 &&
         (answer[1].nil? || (answer[1].is_a?(Array) && answer[1].size == 2))
    raise BadMessage, "not an answer" unless ok

    answer
  end

  def result_of(answer)
    _, error, result = answer
    raise RemoteError.new(*error) if error

    result
  end
end
