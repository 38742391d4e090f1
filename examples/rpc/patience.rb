# frozen_string_literal: true

require_relative "sockets"

# The client sends nothing, or not the rest of what it began.
class Silent < StandardError; end

# How long a server waits for what a client sends next. There is a limit for silence and a shorter one for a frame that
# has begun, measured from its beginning: else a byte now and then would keep a connection, and its frame, for ever.
class Patience
  FRAME_SECONDS = 5

  def initialize(idle_seconds)
    @idle_seconds = idle_seconds
    @in_frame = false
    wait(@idle_seconds)
  end

  # How many seconds there are for the next bytes.
  def left
    [@deadline - Sockets.now, 0].max
  end

  # A frame has come whole.
  def whole_frame
    @in_frame = false
  end

  # All that arrived has been looked at.
  def heard(between_frames)
    if between_frames
      @in_frame = false
      wait(@idle_seconds)
    elsif !@in_frame
      @in_frame = true
      wait(FRAME_SECONDS)
    end
  end

  # The time is over. Only who waits for an answer may be silent for longer; otherwise raises Silent.
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
