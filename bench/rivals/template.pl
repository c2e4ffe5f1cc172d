# TEMPLATES TARGETS NAME...: renders each template into its target, from the values beside the templates.
use strict;
use warnings;
use Text::Template 'fill_in_file';

my ($templates, $targets, @names) = @ARGV;
my $values = do "$templates/values";
for my $name (@names) {
  open my $file, '>', "$targets/$name.new" or die $!;
  print $file fill_in_file("$templates/$name", HASH => $values, DELIMITERS => ['[@', '@]']);
  close $file or die $!;
  rename "$targets/$name.new", "$targets/$name" or die $!;
}
