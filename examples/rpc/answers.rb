# frozen_string_literal: true

# How a call can fail, and what counts as an answer, in both clients.

require_relative "framing"

# No answer in time. The server may still be at it.
class TimedOut < StandardError; end

# There is no connection, or it broke before the answer came.
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

  # [id, nil, result] or [id, [code, text], nil]; the server is not trusted to keep to it.
  def check_answer(answer)
    ok = answer.is_a?(Array) && answer.size == 3 &&
         (answer[1].nil? || (answer[1].is_a?(Array) && answer[1].size == 2))
    raise BadFrame, "not an answer" unless ok

    answer
  end
end
