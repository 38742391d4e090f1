# frozen_string_literal: true

require_relative "sockets"

# The client sends nothing, or does not finish what it began.
class Silent < StandardError; end

# The timeouts of a server that waits for a client. A client may be silent for one time, and a frame that has begun must
# be complete within a shorter one, measured from its beginning: otherwise a byte now and then would hold a connection
# and an incomplete frame for ever.
class Patience
  FRAME_SECONDS = 5

  def initialize(idle_seconds)
    @idle_seconds = idle_seconds
    @in_frame = false
    wait(@idle_seconds)
  end

  # When the next bytes must have arrived, and the seconds until then.
  attr_reader :deadline

  def left
    [@deadline - Sockets.now, 0].max
  end

  # A frame is complete.
  def whole_frame
    @in_frame = false
  end

  # All bytes that arrived have been processed.
  def heard(between_frames)
    if between_frames
      @in_frame = false
      wait(@idle_seconds)
    elsif !@in_frame
      @in_frame = true
      wait(FRAME_SECONDS)
    end
  end

  # The deadline has passed. Raises Silent, unless the client waits for an answer and no frame is incomplete.
  def over(in_progress)
    raise Silent, "the rest of a frame did not come in #{FRAME_SECONDS} s" if @in_frame
    raise Silent, "silent for #{@idle_seconds} s" if in_progress.zero?

    wait(@idle_seconds)
  end

  private

  def wait(seconds)
    @deadline = Sockets.now + seconds
  end
end
