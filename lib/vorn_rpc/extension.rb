# frozen_string_literal: true

module VORN
  # Finds the compiled parts. The gem for one platform brings them for several Rubies, in a folder for each; in the gem
  # of sources, and in a checkout, they were compiled for this one.
  module Extension # :nodoc:
    RUBY = (RUBY_ENGINE == "ruby" ? RUBY_VERSION[/\A\d+\.\d+/] : "#{RUBY_ENGINE} #{RUBY_VERSION}").freeze

    def self.load(name)
      rubies = Dir.entries(__dir__).grep(/\A\d+\.\d+\z/).sort_by { |ruby| ruby.split(".").map(&:to_i) }
      return require(name) if rubies.empty?
      unless rubies.include?(RUBY)
        raise LoadError, "no build for Ruby #{RUBY} in this gem, which has #{rubies.join(', ')}; " \
                         "install the source gem: gem install vorn_rpc --platform ruby"
      end
      require "vorn_rpc/#{RUBY}/#{name}"
    end
  end
  private_constant :Extension
end
