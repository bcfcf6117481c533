// replaced when the library gets its first source
