# frozen_string_literal: true

# A Hash whose `each` hands its block to a callable.
class OwnEach < Hash
  # The option that makes a child Ruby load this file.
  OPTION = "-r#{File.expand_path(__FILE__)}".freeze

  def initialize(&body)
    super()
    @body = body
  end

  def each(&block)
    @body.call(block)
  end
end
