# What the documentation leaves out: specialisations of the standard library's templates, defaulted comparisons, moves, and the
# functions by which a type reads and writes its JSON form, whose shape stands in the type's own comment.
/^template <>$/{
N
/\nstruct std::/{
:body
/\n};$/d
/: std::true_type {};$/d
N
b body
}
/\n[A-Za-z:]* decode</d
}
/operator<=>(.*= default;/d
/operator==(.*= default;/d
/^void encode(JSONWriter& writer, [^{]*);$/d
/^inline void encode(JSONWriter& writer/d
/^ *[A-Za-z0-9]*([A-Za-z0-9]*&&[ a-z]*) noexcept/d
/operator=([A-Za-z0-9]*&&[ a-z]*) noexcept;$/d
