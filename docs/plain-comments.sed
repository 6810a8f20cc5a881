# For Doxygen: makes documentation of the plain comments of a header.

# Notes to other tools are none.
/^ *\/\/ NOLINT/d

# The licence; then the comment at the top is the file's.
1{/SPDX-License-Identifier/d}
2s,^// ,/// \\file\n/// ,

s,^\( *\)//\( \|$\),\1///\2,

# Behind a member or an enumerator: it documents what stands before it.
s,\([;\,{] *\)// ,\1///< ,

# What cannot be called needs no words.
/= delete;$/d
