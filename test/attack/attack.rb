# frozen_string_literal: true

# The extension under attack: random operations, some of them hostile, on a pool of buffers and frames, each compared
# with the model (test/support/model.rb).

require "vorn_rpc_ext"

require_relative "../support/model"
require_relative "object_pool"
require_relative "callers"
require_relative "inputs"
require_relative "hostile_values"
require_relative "overwriting_keys"
require_relative "generator"
require_relative "collector"
require_relative "comparison"
