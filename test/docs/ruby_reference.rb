# frozen_string_literal: true

# usage: ruby_reference.rb FOLDER
#
# Generates the reference pages of the Ruby classes from the comments in ext/ and lib/. Fails on any warning, and if a
# class, constant or public method has no text.

require "rdoc/rdoc"
require "stringio"
require "vorn_rpc/packing"
require "vorn_rpc/rpc"

ROOT = File.expand_path("../..", __dir__)
TITLE = "Vorn RPC #{VORN::VERSION}"

# Returns the store of the parsed sources, and RDoc's warnings.
def document(folder)
  Dir.chdir(ROOT) do
    rdoc = RDoc::RDoc.new
    sources = Dir["ext/*.cc"].sort + Dir["lib/**/*.rb"].sort
    heard = heard_from do
      rdoc.document(["--quiet", "--force-output", "--title", TITLE, "--main", "VORN::PROTO", "--output", folder,
                     *sources])
    end
    [rdoc.store, heard]
  end
end

def heard_from
  stderr, $stderr = $stderr, StringIO.new
  yield
  $stderr.string
ensure
  $stderr = stderr
end

def text?(object)
  object && !object.comment.to_s.strip.empty?
end

# Returns the names of what is not documented.
def missing_in(store)
  owners = [VORN::PROTO, VORN::Stream, VORN::Packing, VORN::RPC]
  classes = owners.flat_map { |mod| mod.constants(false).map { |name| mod.const_get(name) } }.grep(Class)
  classes << VORN::Packing
  missing = [VORN, VORN::PROTO, VORN::Stream, VORN::RPC, *classes].flat_map do |owner|
    page = store.find_class_or_module(owner.name)
    next [owner.name] unless page
    own = text?(page) ? [] : [owner.name]
    constants = owner.constants(false).reject { |name| owner.const_get(name).is_a?(Module) }
    constants = constants.reject { |name| text?(page.constants.find { |constant| constant.name == name.to_s }) }
    methods = owner.is_a?(Class) ? owner.public_instance_methods(false) : []
    methods -= owner.members + owner.members.map { |member| :"#{member}=" } if owner < Struct # the class says what
    methods = methods.reject do |name|
      text?(page.find_instance_method_named(name.to_s) || page.find_attribute_named(name.to_s))
    end
    own + constants.map { |name| "#{owner}::#{name}" } + methods.map { |name| "#{owner}##{name}" }
  end
  # A documented method that the extension lacks is a mistake in the sources or in their parsing.
  methods = store.all_classes_and_modules.flat_map(&:method_list)
  read = methods.reject { |method| method.visibility != :public }
  known = classes.flat_map { |owner| owner.public_instance_methods(false) + owner.singleton_methods(false) }.map(&:to_s)
  unknown = read.map(&:name).uniq - known - %w[new]
  [missing, unknown]
end

folder = File.expand_path(ARGV.fetch(0))
store, said = document(folder)
missing, unknown = missing_in(store)
abort "ruby_reference: #{said}" unless said.empty?
abort "ruby_reference: not documented: #{missing.join(', ')}" unless missing.empty?
abort "ruby_reference: not in the extension: #{unknown.join(', ')}" unless unknown.empty?
puts "Ruby: #{store.all_classes_and_modules.flat_map(&:method_list).size} methods, all documented"
