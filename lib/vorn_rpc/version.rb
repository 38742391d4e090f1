# frozen_string_literal: true

module VORN
  # The one version of the gem, the C++ library and the change log.
  VERSION = "1.0.0"
end
