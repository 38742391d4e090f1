# frozen_string_literal: true

# A message that is no request, or no answer: the peer does not speak this protocol.
class BadMessage < StandardError; end
