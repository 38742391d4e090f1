# frozen_string_literal: true

require "mkmf"
create_makefile("callgrind")
