# frozen_string_literal: true

require "cgi"

# Text that any client of Redis may have written, for people and programs to read.
module Escape
  MOST_BYTES = 500

  module_function

  # For a terminal: one line, in UTF-8, without characters that are obeyed instead of shown or turn the line round.
  def terminal(text)
    bytes = text.to_s.b
    shown = bytes.byteslice(0, MOST_BYTES).force_encoding("UTF-8").scrub do |wrong|
      wrong.bytes.map { |byte| format("\\x%02X", byte) }.join
    end
    shown = shown.gsub(/[\p{C}\p{Zl}\p{Zp}]/u) { |character| format("\\u{%X}", character.ord) }
    bytes.bytesize > MOST_BYTES ? "#{shown}..." : shown
  end

  # For a page.
  def html(text)
    CGI.escapeHTML(terminal(text))
  end

  # For the value of a label in Prometheus' text format, which is UTF-8 and knows three escapes.
  def label(text)
    utf8 = text.to_s.b.force_encoding("UTF-8").scrub("?")
    utf8.gsub(/[\\"\n]/, "\\" => "\\\\", "\"" => "\\\"", "\n" => "\\n")
  end
end
